// The test program's own dlclose: every library that the bridge closes is recorded among the calls
// of the fakes as "dlclose(<file name>)", so that its place in the order can be seen.
#include <dlfcn.h>
#include <link.h>

#include <filesystem>
#include <string>

#include "Tests/Fakes/Recorder.h"

extern "C" __attribute__((visibility("default"))) int dlclose(void* library) noexcept {
    using Dlclose = int (*)(void*);
    static const auto next = reinterpret_cast<Dlclose>(dlsym(RTLD_NEXT, "dlclose"));
    link_map* map = nullptr;
    if (dlinfo(library, RTLD_DI_LINKMAP, &map) == 0 && map != nullptr) {
        Fakes::Record("dlclose(" + std::filesystem::path(map->l_name).filename().string() + ")");
    }
    return next(library);
}
