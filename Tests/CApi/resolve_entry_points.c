/* A host in plain C. It opens the bridge library that its one argument names, resolves every C
 * entry point and calls those that need no other library. Ends with 0 when all of them did what
 * they should, else with 1 after a line for each that did not. */
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

typedef void (*function)(void);
typedef void* (*create_function)(int32_t mode);
typedef void* (*get_function)(void);
typedef int (*set_callback_function)(void* callback);
typedef const char* (*error_function)(void);

static const char* const names[] = {
    "CreateReceiver",           "CreateTransmitter", "GetReceiver",
    "GetTransmitter",           "SendCommand",       "ReadResponse",
    "SetEmbeddedRuntime",       "DeployRuntime",     "SetConfigSource",
    "SetWorkingDirectory",      "GetNativeError",    "SetCallback",
    "emptyFunctionInNativeLib",
};

static int failures = 0;

static void expect(int condition, const char* what) {
    if (condition) return;
    ++failures;
    fprintf(stderr, "not so: %s\n", what);
}

/* C has no conversion between pointers to data and to functions; their bits are the same. */
static function resolve(void* library, const char* name) {
    void* address = dlsym(library, name);
    function resolved = NULL;
    expect(address != NULL, name);
    memcpy(&resolved, &address, sizeof resolved);
    return resolved;
}

static void call_harmless_ones(void* library) {
    create_function create_receiver = (create_function)resolve(library, "CreateReceiver");
    create_function create_transmitter = (create_function)resolve(library, "CreateTransmitter");
    get_function get_receiver = (get_function)resolve(library, "GetReceiver");
    get_function get_transmitter = (get_function)resolve(library, "GetTransmitter");
    set_callback_function set_callback = (set_callback_function)resolve(library, "SetCallback");
    error_function get_native_error = (error_function)resolve(library, "GetNativeError");
    int32_t* mode = dlsym(library, "operationMode");
    int callback = 0;
    void* receiver;
    void* transmitter;

    resolve(library, "emptyFunctionInNativeLib")();
    expect(get_receiver() == NULL, "no receiver exists at first");
    expect(get_transmitter() == NULL, "no transmitter exists at first");
    expect(strcmp(get_native_error(), "Undefined error") == 0, "no error happened at first");
    expect(set_callback(&callback) == 0, "SetCallback answers 0 for a callback");
    expect(set_callback(NULL) == 1, "SetCallback answers 1 for null");

    expect(mode != NULL && *mode == -1, "no mode is chosen at first");
    receiver = create_receiver(1);
    transmitter = create_transmitter(0);
    expect(receiver != NULL, "CreateReceiver creates a receiver");
    expect(receiver == get_receiver(), "GetReceiver gives the created receiver");
    expect(transmitter != NULL, "CreateTransmitter creates a transmitter");
    expect(transmitter == get_transmitter(), "GetTransmitter gives the created transmitter");
    expect(mode != NULL && *mode == 1, "the first caller's mode stays");
}

int main(int argument_count, char** arguments) {
    void* library;
    size_t i;
    if (argument_count != 2) {
        fprintf(stderr, "usage: resolve_entry_points <bridge library>\n");
        return 1;
    }
    library = dlopen(arguments[1], RTLD_NOW);
    if (library == NULL) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    for (i = 0; i < sizeof names / sizeof names[0]; ++i) resolve(library, names[i]);
    if (failures == 0) call_harmless_ones(library);
    return failures == 0 ? 0 : 1;
}
