// Looking up script identifiers by their full name. Results are borrowed. A missing name ends the
// process (InternalError).
#pragma once

#include "ID.h"
#include "Type.h"

class Func;
class Val;

extern Val* internal_val(const char* name);        // may be 0: no value
extern Val* internal_const_val(const char* name);  // the name must be that of a constant
extern BroType* internal_type(const char* name);
extern Func* internal_func(const char* name);  // may be 0: no value
