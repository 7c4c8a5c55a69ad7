// The configuration that is in force in this process. One instance, made when the library is loaded
// and never destroyed, so that errors can be recorded until the very end of the process. Any thread
// may call any operation, also in a forked child: the lock is held only while a pointer or a short
// text is copied, never while a file is read.

#ifndef QUORVALEN_COMPANIONS_CONFIGURATIONSTORE_H
#define QUORVALEN_COMPANIONS_CONFIGURATIONSTORE_H

#include <memory>
#include <mutex>
#include <string>

#include "Configuration.h"

namespace Quorvalen::Companions {

class ConfigurationStore {
  public:
    static ConfigurationStore& Instance();

    // Reads `source` and puts it in force. Throws ConfigurationError, which Current() then repeats.
    void SetSource(const char* source);

    // Throws ConfigurationError when `path` is no existing directory.
    void SetWorkingDirectory(const char* path);

    // Throws ConfigurationError with the sentence of the last SetSource if that failed.
    std::shared_ptr<const Configuration> Current() const;

    // These two answer even after a failed SetSource: recording that failure needs them.
    std::string LoggingLevel() const;
    std::string WorkingDirectory() const;

  private:
    ConfigurationStore();

    static ConfigurationStore& instance_;
    static std::mutex mutex_;  // guards everything below

    std::shared_ptr<const Configuration> lastGood_ = std::make_shared<Configuration>();
    std::string failure_;  // the sentence of the last SetSource; empty: it succeeded
    std::string workingDirectoryOverride_;  // absolute; empty: none
};

}  // namespace Quorvalen::Companions

#endif
