// Looking up script identifiers by their full name. Results are borrowed.
#pragma once

#include "EventHandler.h"
#include "ID.h"
#include "Type.h"

class Func;
class StringVal;
class TableVal;
class Val;

// These end the process (InternalError) when the name is missing.
extern Val* internal_val(const char* name);        // may be 0: no value
extern Val* internal_const_val(const char* name);  // ... or when it is not constant
extern BroType* internal_type(const char* name);
extern Func* internal_func(const char* name);  // may be 0: no value

/// Makes the handler if need be.
extern EventHandlerPtr internal_handler(const char* name);

// These give 0.
extern Val* opt_internal_val(const char* name);
extern double opt_internal_double(const char* name);
extern bro_int_t opt_internal_int(const char* name);
extern bro_uint_t opt_internal_unsigned(const char* name);
extern StringVal* opt_internal_string(const char* name);
extern TableVal* opt_internal_table(const char* name);
