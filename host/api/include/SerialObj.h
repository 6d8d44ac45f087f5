// Root of everything that the host can send to its peers.
#pragma once

/// Numbers objects that are not serialised.
class TransientID {
 public:
  TransientID() : id(++counter) {}
  operator unsigned long long() const { return id; }

 private:
  unsigned long long id;
  static unsigned long long counter;
};

class SerialObj {
 public:
  virtual ~SerialObj() {}

 protected:
  SerialObj() {}

 private:
  TransientID tid;
};
