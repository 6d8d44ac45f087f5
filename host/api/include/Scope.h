// The table of script identifiers.
#pragma once

#include <map>
#include <string>

#include "ID.h"

class Scope : public BroObj {
 public:
  Scope() {}
  ~Scope();

  /// Borrowed; 0 if there is none. Names are fully qualified: "LogZMQ::x", "string_vec".
  ID* Lookup(const char* name) const;
  ID* Lookup(const std::string& name) const;
  /// Takes over id's reference; an older one of that name goes.
  void Insert(const char* name, ID* id);

 private:
  std::map<std::string, ID*> ids;
};

/// The only scope that the stand-in has. Holds the types that the host itself defines
/// (string_vec, connection, conn_id, endpoint, ...) from the start.
extern Scope* global_scope();
