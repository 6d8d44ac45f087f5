// The list types of the script layer.
#pragma once

#include "List.h"

class Val;
declare(PList, Val);
typedef PList(Val) val_list;

class BroType;
declare(PList, BroType);
typedef PList(BroType) type_list;

class TypeDecl;
declare(PList, TypeDecl);
typedef PList(TypeDecl) type_decl_list;

class ID;
declare(PList, ID);
typedef PList(ID) id_list;

class Attr;
declare(PList, Attr);
typedef PList(Attr) attr_list;
