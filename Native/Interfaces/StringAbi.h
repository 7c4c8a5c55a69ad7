// Strings cross the boundaries between the framework's libraries by value, so all of them must be
// built with one layout of std::string; a build with another one stops here instead of corrupting
// memory in a host.
#pragma once

#include <string>

static_assert(_GLIBCXX_USE_CXX11_ABI == 1,
              "the libraries exchange std::string in its C++11 layout");
static_assert(sizeof(std::string) == 32, "the libraries exchange std::string by value");
