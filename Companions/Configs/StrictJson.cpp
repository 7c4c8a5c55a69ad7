#include "StrictJson.h"

#include <cstddef>
#include <set>
#include <vector>

#include "Configuration.h"

namespace Quorvalen::Companions {
namespace {

// Watches the parser for a key that stands twice in one object; the parser alone would keep the
// last one silently.
class DuplicateKeyCheck {
  public:
    bool operator()(Json::parse_event_t event, const Json& parsed) {
        if (event == Json::parse_event_t::object_start) open_.emplace_back();
        if (event == Json::parse_event_t::object_end) open_.pop_back();
        if (event == Json::parse_event_t::key) Enter(parsed.get_ref<const std::string&>());
        return true;
    }

  private:
    struct OpenObject {
        std::set<std::string> keys;
        std::string current;
    };

    void Enter(const std::string& key) {
        const bool isNew = open_.back().keys.insert(key).second;
        open_.back().current = key;
        if (isNew) return;
        std::string path;
        for (const OpenObject& object : open_) path += (path.empty() ? "" : ".") + object.current;
        Fail(path, "stands twice");
    }

    std::vector<OpenObject> open_;
};

// The parser's own words from "line ..." on, without its quotation of the text, which may hold a
// password.
std::string SyntaxComplaint(const std::string& parserText) {
    const std::size_t start = parserText.find("line ");
    if (start == std::string::npos) return parserText.substr(parserText.find("] ") + 2) + ".";
    std::string text = parserText.substr(start);
    text.front() = 'L';
    const std::size_t quote = text.find("; last read: '");
    if (quote != std::string::npos) {
        const std::size_t expected = text.rfind("'; expected ");
        text = text.substr(0, quote) +
               (expected == std::string::npos ? "" : text.substr(expected + 1));
    }
    return text + ".";
}

}  // namespace

std::string Quoted(std::string_view text) {
    return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

[[noreturn]] void Fail(const std::string& path, const std::string& complaint) {
    const std::string subject = path.empty() ? "The document" : Quoted(path);
    throw ConfigurationError(subject + " " + complaint + ".");
}

Json ParseStrictly(const std::string& text) {
    DuplicateKeyCheck duplicates;
    const auto watch = [&duplicates](int, Json::parse_event_t event, Json& parsed) {
        return duplicates(event, parsed);
    };
    try {
        return Json::parse(text, watch);
    } catch (const Json::exception& error) {
        throw ConfigurationError(SyntaxComplaint(error.what()));
    }
}

}  // namespace Quorvalen::Companions
