// Makes the values of a record unusable, so that a writer that keeps pointers into them is found
// out at once instead of by luck.
#pragma once

#include "threading/SerialTypes.h"

namespace standin {

/// What poisoned bytes look like.
const unsigned char kPoisonByte = 0xdb;

/// Overwrites and frees what `value` owns, overwrites the union, and leaves `value` unset with
/// type TYPE_ERROR. The object itself stays, for its owner to delete. Any thread.
void poison(threading::Value* value);

}  // namespace standin
