#include "ConfigurationStore.h"

#include <pthread.h>

#include <filesystem>
#include <system_error>
#include <utility>

namespace Quorvalen::Companions {
namespace {

// When the current directory was removed it has no name any more, but "." still means it.
std::string CurrentDirectory() {
    std::error_code error;
    const std::filesystem::path directory = std::filesystem::current_path(error);
    return error ? "." : directory.string();
}

}  // namespace

constinit std::mutex ConfigurationStore::mutex_;

// Made while the library is loaded: a child forked during a first use by another thread would wait
// for it for ever.
ConfigurationStore& ConfigurationStore::instance_ = *new ConfigurationStore;

ConfigurationStore& ConfigurationStore::Instance() {
    return instance_;
}

// A child forked while another thread holds the mutex would inherit one that nobody unlocks.
ConfigurationStore::ConfigurationStore() {
    ::pthread_atfork([] { mutex_.lock(); }, [] { mutex_.unlock(); }, [] { mutex_.unlock(); });
}

void ConfigurationStore::SetSource(const char* source) {
    std::shared_ptr<const Configuration> fresh;
    std::string failure;
    try {
        if (source == nullptr) {
            throw ConfigurationError(
                "The configuration source is a null pointer. Expected a file name or JSON text.");
        }
        fresh = std::make_shared<const Configuration>(ReadConfiguration(source));
    } catch (const std::exception& error) {
        failure = error.what();
    }
    const std::lock_guard lock(mutex_);
    failure_ = failure;
    if (!failure.empty()) throw ConfigurationError(failure);
    lastGood_ = std::move(fresh);
}

void ConfigurationStore::SetWorkingDirectory(const char* path) {
    std::string directory = ExistingDirectory(path == nullptr ? "" : path, "");
    if (directory.empty()) throw ConfigurationError("Not an existing directory.");
    const std::lock_guard lock(mutex_);
    workingDirectoryOverride_ = std::move(directory);
}

std::shared_ptr<const Configuration> ConfigurationStore::Current() const {
    const std::lock_guard lock(mutex_);
    if (!failure_.empty()) throw ConfigurationError(failure_);
    return lastGood_;
}

std::string ConfigurationStore::LoggingLevel() const {
    const std::lock_guard lock(mutex_);
    return lastGood_->loggingLevel;
}

std::string ConfigurationStore::WorkingDirectory() const {
    const std::lock_guard lock(mutex_);
    if (!workingDirectoryOverride_.empty()) return workingDirectoryOverride_;
    if (!lastGood_->workingDirectory.empty()) return lastGood_->workingDirectory;
    return CurrentDirectory();
}

}  // namespace Quorvalen::Companions
