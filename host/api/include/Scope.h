// The table of script identifiers.
#pragma once

#include <map>
#include <string>

#include "ID.h"

class Scope : public BroObj {
 public:
  ~Scope();

  /// Borrowed; 0 if there is none. Names are fully qualified: "LogZMQ::x", "string_vec".
  ID* Lookup(const std::string& name) const;
  /// Takes over id's reference; an older one of that name goes.
  void Insert(const char* name, ID* id);
  /// Forgets everything but the host's own types.
  void Clear();

 private:
  friend Scope* global_scope();
  Scope();

  std::map<std::string, ID*> ids;
};

/// The only scope that the stand-in has. Holds the types that the host's own scripts define and the
/// plug-in asks for (string_vec, connection) from the start.
extern Scope* global_scope();
