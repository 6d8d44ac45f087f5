// What a plug-in offers to the host.
#pragma once

#include <string>

namespace plugin {

namespace component {
enum Type { READER, WRITER, ANALYZER, FILE_ANALYZER, IOSOURCE, PKTSRC, PKTDUMPER };
}

class Component {
 public:
  Component(component::Type type, const std::string& name);
  virtual ~Component();

  component::Type Type() const { return type; }
  const std::string& Name() const { return name; }
  /// See canonify_name.
  const std::string& CanonicalName() const { return canon_name; }

 private:
  Component(const Component&);
  Component& operator=(const Component&);

  component::Type type;
  std::string name;
  std::string canon_name;
};

}  // namespace plugin
