#include "JsonText.h"

#include <cmath>
#include <string>
#include <utility>
#include <vector>

#include "Errors.h"

namespace Quorvalen::CppBridge {
namespace {

using Cpp::Json;
using Cpp::MalformedCommand;
using Cpp::NotPlain;
using Cpp::Conversion::KindOf;

constexpr const char* kHandle = "$handle";
constexpr const char* kType = "type";
constexpr std::size_t kMaximumLevels = 100;
// The body itself and the array or object around the arguments are not part of any value.
constexpr std::size_t kMaximumBodyLevels = kMaximumLevels + 2;

void CheckKeys(const Json& object) {
    for (const auto& member : object.items()) {
        if (!member.key().starts_with("$")) continue;
        throw MalformedCommand("an object has the member \"" + member.key() +
                               R"("; of the keys that begin with $ there is only "$handle")");
    }
}

void CheckHandle(const Json& handle) {
    if (!handle.at(kHandle).is_number_integer()) {
        throw MalformedCommand("\"$handle\" must be an integer, not " + KindOf(handle.at(kHandle)));
    }
    for (const auto& member : handle.items()) {
        if (member.key() == kHandle || member.key() == kType) continue;
        throw MalformedCommand(R"(beside "$handle" only "type" may stand, not ")" + member.key() +
                               "\"");
    }
}

// Builds the value from the parser's events; the parser itself uses no stack, however deep the
// text.
class Builder : public nlohmann::json_sax<Json> {
  public:
    explicit Builder(Json& result) : root(result) {}

    bool null() override { return Place(nullptr); }
    bool boolean(bool value) override { return Place(value); }
    bool number_integer(number_integer_t value) override { return Place(value); }
    bool number_unsigned(number_unsigned_t value) override { return Place(value); }
    bool number_float(number_float_t value, const string_t& text) override {
        // An integer that fits no 64 bits is offered as a floating-point number.
        if (text.find_first_of(".eE") == string_t::npos) {
            throw MalformedCommand("the integer " + text + " lies outside -2^63 to 2^64 - 1");
        }
        return Place(value);
    }
    bool string(string_t& value) override { return Place(std::move(value)); }
    bool binary(binary_t&) override { return false; }  // there is none in JSON text

    bool start_object(std::size_t) override { return Open(Json::object()); }
    bool start_array(std::size_t) override { return Open(Json::array()); }
    bool key(string_t& name) override {
        if (open.back()->contains(name)) {
            throw MalformedCommand("an object has the member \"" + name + "\" twice");
        }
        member = &(*open.back())[name];
        return true;
    }
    bool end_object() override {
        const Json& object = *open.back();
        object.contains(kHandle) ? CheckHandle(object) : CheckKeys(object);
        return end_array();
    }
    bool end_array() override {
        open.pop_back();
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const Json::exception& error) override {
        throw MalformedCommand(std::string("the body is not JSON in UTF-8: ") + error.what());
    }

  private:
    bool Place(Json value) {
        Next(std::move(value));
        return true;
    }
    bool Open(Json container) {
        if (open.size() == kMaximumBodyLevels) {
            throw MalformedCommand("the body is nested too deeply");
        }
        open.push_back(&Next(std::move(container)));
        return true;
    }
    // Containers stay in place while they are open: only the innermost one grows.
    Json& Next(Json value) {
        if (open.empty()) return root = std::move(value);
        if (open.back()->is_array()) {
            open.back()->push_back(std::move(value));
            return open.back()->back();
        }
        return *member = std::move(value);
    }

    Json& root;
    std::vector<Json*> open;
    Json* member = nullptr;
};

void CheckPlain(const Json& value, std::size_t levelsLeft) {
    if (value.is_number_float() && !std::isfinite(value.get<double>())) {
        throw NotPlain("a number is not finite");
    }
    if (value.is_binary() || value.is_discarded()) throw NotPlain("a value is no JSON value");
    if (!value.is_structured()) return;
    if (levelsLeft == 0) throw NotPlain("the value is nested more than 100 levels deep");
    for (const auto& member : value.items()) {
        if (value.is_object() && member.key().starts_with("$") && !IsHandle(value)) {
            throw NotPlain("a key of an object begins with $: \"" + member.key() + "\"");
        }
        CheckPlain(member.value(), levelsLeft - 1);
    }
}

}  // namespace

Json ReadBody(std::string_view body) {
    Json result;
    Builder builder(result);
    Json::sax_parse(body, &builder);
    if (!result.is_object() || IsHandle(result)) {
        throw MalformedCommand("the body must be one JSON object, not " + KindOf(result));
    }
    return result;
}

std::string WriteValue(const Json& value) {
    CheckPlain(value, kMaximumLevels);
    try {
        return value.dump();
    } catch (const Json::type_error&) {
        throw NotPlain("a text is not UTF-8");
    }
}

bool IsHandle(const Json& value) {
    if (!value.is_object() || !value.contains(kHandle)) return false;
    return value.at(kHandle).is_number_integer() && value.size() == 1 + value.count(kType);
}

}  // namespace Quorvalen::CppBridge
