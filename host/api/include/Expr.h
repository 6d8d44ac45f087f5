// Script expressions: only their names. The stand-in evaluates none.
#pragma once

#include "Obj.h"

class Expr;
class ListExpr;
