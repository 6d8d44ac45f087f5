// How a value is changed.
#pragma once

enum Opcode {
  OP_NONE,
  OP_ASSIGN,
  OP_ASSIGN_IDX,
  OP_ADD,
  OP_INCR,
  OP_INCR_IDX,
  OP_DEL,
  OP_PRINT,
  OP_EXPIRE,
  OP_READ_IDX
};
