// The sixteen functions of the configuration library and the bridge's operations around them, in
// one table that the tests run over.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "Tests/Support/Bridge.h"

enum class ConfigKind {
    Setter,         // takes a text, returns the function's number, raises
    RaisingText,    // returns a text, raises
    Level,          // returns a level, 1 on failure
    Text,           // returns a text, "" on failure
    Number,         // returns a number, 0 on failure
    ChannelNumber,  // the same for a runtime and a channel
    ChannelText,    // returns a text for a runtime and a channel, "" on failure
};

struct ConfigOperation {
    const char* name;  // of the function and of the operation
    ConfigKind kind;

    bool Raises() const { return kind == ConfigKind::Setter || kind == ConfigKind::RaisingText; }
    bool AnswersWithText() const {
        return kind == ConfigKind::RaisingText || kind == ConfigKind::Level ||
               kind == ConfigKind::Text || kind == ConfigKind::ChannelText;
    }

    // The call that the configuration library sees from CallOf.
    std::string Recorded() const;

    // What the operation answers when something fails and it does not raise, as CallOf shows it.
    std::string DefaultAnswer() const;
};

// How GoogleTest names an operation in its output.
void PrintTo(const ConfigOperation& operation, std::ostream* stream);

extern const std::vector<ConfigOperation> kConfigOperations;

// Calls the operation, with "argument" or with ("python", "default"), and shows its answer as text.
// Exceptions pass through.
std::string CallOf(const Bridge& bridge, const ConfigOperation& operation);
