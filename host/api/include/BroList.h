// The list types of the script layer.
#pragma once

#include "List.h"

class Val;
declare(PList, Val);
typedef PList(Val) val_list;

class TypeDecl;
declare(PList, TypeDecl);
typedef PList(TypeDecl) type_decl_list;
