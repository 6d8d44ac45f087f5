// A call's local variables. Built-in functions get a frame and do not look into it.
#pragma once

#include "Val.h"

using namespace std;

class BroFunc;

class Frame : public BroObj {
 public:
  Frame(int size, const BroFunc* func, const val_list* fn_args);
  ~Frame();

  /// Borrowed; 0 if unset.
  Val* NthElement(int n) const { return frame[static_cast<size_t>(n)]; }
  /// Takes over v's reference.
  void SetElement(int n, Val* v);

 private:
  vector<Val*> frame;
};
