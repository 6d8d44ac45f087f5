#include "Frame.h"

Frame::Frame(int size, const BroFunc*, const val_list* fn_args)
    : frame(static_cast<size_t>(size), nullptr) {
  if (!fn_args)
    return;
  for (int i = 0; i < size && i < fn_args->length(); ++i) {
    if (Val* arg = (*fn_args)[i])
      frame[static_cast<size_t>(i)] = arg->Ref();
  }
}

Frame::~Frame() {
  for (Val* v : frame)
    Unref(v);
}

void Frame::SetElement(int n, Val* v) {
  Unref(frame[static_cast<size_t>(n)]);
  frame[static_cast<size_t>(n)] = v;
}
