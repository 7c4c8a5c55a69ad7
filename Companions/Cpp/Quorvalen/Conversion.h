// How the JSON values of a command become the arguments of a plain C++ function. Part of the public
// API through Quorvalen/Cpp.h; everything here is pure, any thread may call it.
//
// A conversion never loses anything: 2.5 is no int, 300 no unsigned char, true no number.
#pragma once

#include <concepts>
#include <cstddef>
#include <functional>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace Quorvalen::Cpp {

using Json = nlohmann::json;

// What every registered function is in the end: takes the array of the call's arguments.
using JsonFunction = std::function<Json(const Json& arguments)>;

// The arguments of a call do not fit the function; the message says which one and what was
// expected.
class ArgumentError : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

namespace Conversion {

// How to speak of a value in a message.
inline std::string KindOf(const Json& value) {
    if (value.is_object()) return value.contains("$handle") ? "a handle" : "an object";
    if (value.is_array()) return "an array";
    if (value.is_string()) return "a string";
    if (value.is_boolean()) return "true or false";
    return value.is_number() ? "a number" : value.is_null() ? "null" : "no JSON value";
}

// Where in an argument ("", ", element 3") stands what, and what should stand there.
struct Mismatch {
    std::string place;
    std::string text;
};

inline Mismatch Expected(const std::string& expectation, const Json& value) {
    return {"", " must be " + expectation + ", not " + KindOf(value)};
}

template <typename Number>
Number IntegerFrom(const Json& value) {
    using Limits = std::numeric_limits<Number>;
    const auto fits = [](auto number) {
        return std::cmp_greater_equal(number, Limits::min()) &&
               std::cmp_less_equal(number, Limits::max());
    };
    const std::string range =
        "an integer from " + std::to_string(Limits::min()) + " to " + std::to_string(Limits::max());
    if (!value.is_number_integer()) throw Expected(range, value);
    const bool fitting = value.is_number_unsigned() ? fits(value.get<std::uint64_t>())
                                                    : fits(value.get<std::int64_t>());
    if (!fitting) throw Mismatch{"", " must be " + range + ", not " + value.dump()};
    return value.get<Number>();
}

template <typename Type>
struct From {
    // Types of the user's own, by their from_json function.
    static Type Value(const Json& value) {
        try {
            return value.get<Type>();
        } catch (const Json::exception& failure) {
            throw Mismatch{"", std::string(" cannot be converted: ") + failure.what()};
        }
    }
};

template <>
struct From<bool> {
    static bool Value(const Json& value) {
        if (!value.is_boolean()) throw Expected("true or false", value);
        return value.get<bool>();
    }
};

template <std::integral Number>
struct From<Number> {
    static Number Value(const Json& value) { return IntegerFrom<Number>(value); }
};

template <std::floating_point Number>
struct From<Number> {
    static Number Value(const Json& value) {
        if (!value.is_number()) throw Expected("a number", value);
        return value.get<Number>();
    }
};

template <>
struct From<std::string> {
    static std::string Value(const Json& value) {
        if (!value.is_string()) throw Expected("a string", value);
        return value.get<std::string>();
    }
};

template <typename Element>
struct From<std::vector<Element>> {
    static std::vector<Element> Value(const Json& value) {
        if (!value.is_array()) throw Expected("an array", value);
        std::vector<Element> elements;
        for (const Json& element : value) {
            try {
                elements.push_back(From<Element>::Value(element));
            } catch (Mismatch& mismatch) {
                const std::string place = ", element " + std::to_string(elements.size() + 1);
                throw Mismatch{place + mismatch.place, mismatch.text};
            }
        }
        return elements;
    }
};

template <typename Parameter>
std::decay_t<Parameter> Argument(const std::string& function, const Json& arguments,
                                 std::size_t index) {
    try {
        return From<std::decay_t<Parameter>>::Value(arguments[index]);
    } catch (const Mismatch& mismatch) {
        throw ArgumentError(function + ": argument " + std::to_string(index + 1) + mismatch.place +
                            mismatch.text);
    }
}

template <typename Result, typename... Parameters, std::size_t... Index>
Json CallWith(const std::string& name, const std::function<Result(Parameters...)>& function,
              [[maybe_unused]] const Json& arguments, std::index_sequence<Index...>) {
    // Braces, because they fix the order: the first wrong argument is the one reported.
    std::tuple<std::decay_t<Parameters>...> values{Argument<Parameters>(name, arguments, Index)...};
    if constexpr (std::is_void_v<Result>) {
        std::apply([&](auto&... value) { function(static_cast<Parameters>(value)...); }, values);
        return nullptr;
    } else {
        return std::apply(
            [&](auto&... value) { return Json(function(static_cast<Parameters>(value)...)); },
            values);
    }
}

// A function whose one parameter is Json takes the array itself: it may be called with any number
// of arguments.
template <typename... Parameters>
inline constexpr bool kTakesTheArray = false;
template <typename Parameter>
inline constexpr bool kTakesTheArray<Parameter> = std::is_same_v<std::decay_t<Parameter>, Json>;

// `name` appears in the messages about wrong arguments.
template <typename Result, typename... Parameters>
JsonFunction ToJsonFunction(const std::string& name,
                            std::function<Result(Parameters...)> function) {
    if (!function) return nullptr;
    return [name, function = std::move(function)](const Json& arguments) -> Json {
        if constexpr (kTakesTheArray<Parameters...>) {
            if constexpr (std::is_void_v<Result>) {
                function(arguments);
                return nullptr;
            } else {
                return function(arguments);
            }
        } else {
            constexpr std::size_t expected = sizeof...(Parameters);
            if (arguments.size() != expected) {
                throw ArgumentError(name + ": expected " + std::to_string(expected) +
                                    " arguments, not " + std::to_string(arguments.size()));
            }
            return CallWith(name, function, arguments, std::index_sequence_for<Parameters...>());
        }
    };
}

}  // namespace Conversion
}  // namespace Quorvalen::Cpp
