#pragma once
// The framework's string type. A plain std::string: the platform adds no
// encoding or sharing rules of its own.

#include <string>
#include <string_view>

namespace Zop {
using String = std::string;
}  // namespace Zop
