// A plug-in's folder.
#pragma once

#include <string>

namespace standin {

/// The name in the magic file of `folder`. Throws HostError when there is none.
std::string plugin_name(const std::string& folder);

/// Without the white space at both ends.
std::string stripped(const std::string& text);

}  // namespace standin
