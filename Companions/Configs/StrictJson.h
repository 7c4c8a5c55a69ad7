// The parser's side of reading a configuration: JSON text to a document, and the words for what is
// wrong in either. Without state; any thread may call any function.

#ifndef QUORVALEN_COMPANIONS_STRICTJSON_H
#define QUORVALEN_COMPANIONS_STRICTJSON_H

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace Quorvalen::Companions {

using Json = nlohmann::json;

// The text in quotation marks, on one line whatever it holds.
std::string Quoted(std::string_view text);

// Throws ConfigurationError: the value at `path` ("proxy.port"; empty: the whole document) and what
// is wrong with it.
[[noreturn]] void Fail(const std::string& path, const std::string& complaint);

// Throws ConfigurationError with line and column where `text` is no JSON, and where a key stands
// twice in one object.
Json ParseStrictly(const std::string& text);

}  // namespace Quorvalen::Companions

#endif
