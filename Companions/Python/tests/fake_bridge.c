/* A native bridge in small, for the tests of the transmitter. It keeps the rules that the
   transmitter has to live with: one current channel per process, chosen by each command; one
   waiting response per thread and in-memory receiver, found by byte 0 of the reader's buffer, and
   one per thread for all network channels. Created and destroyed with the test process; any thread
   may call.

   It executes a few functions. "callback" calls the Python function that its argument names,
   through the registered callback, and answers what that answered; "callback_elsewhere" does so on
   a thread that Python did not create; after "fail" SendCommand returns -2, with an error text that
   is not UTF-8; after "unreadable" ReadResponse returns -3; any other function answers its
   arguments. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

typedef unsigned char byte;
typedef void* (*callback_type)(byte*, int);

enum { RUNTIMES = 11, NETWORK = RUNTIMES, SLOTS, HEADER = 11 };

typedef struct {
    byte* bytes;
    int length;
} response_type;

static callback_type callback;
static const char* error_text = "Undefined error";
static int network_is_current; /* the current channel; unguarded, as in the real bridge */
static __thread response_type waiting[SLOTS];
static __thread int unreadable;

static void keep(int slot, const byte* bytes, int length) {
    free(waiting[slot].bytes);
    waiting[slot].bytes = malloc((size_t)length + 1);
    memcpy(waiting[slot].bytes, bytes, (size_t)length);
    waiting[slot].length = length;
}

/* Answers header and body; `kind` is byte 10. */
static int answer(int slot, const byte* command, byte kind, const char* body, int body_length) {
    byte* response = malloc((size_t)(HEADER + body_length));
    memcpy(response, command, HEADER);
    response[0] = command[9];
    response[9] = command[0];
    response[10] = kind;
    memcpy(response + HEADER, body, (size_t)body_length);
    keep(slot, response, HEADER + body_length);
    free(response);
    return HEADER + body_length;
}

static int call_back(int slot, byte* message, int length) {
    long (*size)(void*);
    char* (*data)(void*);
    void* result = callback(message, length);
    *(void**)&size = dlsym(RTLD_DEFAULT, "PyByteArray_Size");
    *(void**)&data = dlsym(RTLD_DEFAULT, "PyByteArray_AsString");
    if (result == NULL) {
        error_text = "the callback returned null";
        return -2;
    }
    keep(slot, (const byte*)data(result), (int)size(result));
    return waiting[slot].length;
}

/* The command that calls the Python function whose name is the first argument of `text`. */
static int call_python(int slot, const byte* command, const char* text) {
    const char* name = strstr(text, "\"arguments\":[\"") + 14;
    const char* end = strchr(name, '"');
    char* message = calloc(1, strlen(text) + 64);
    int length = HEADER;
    message[0] = 5;
    message[9] = (char)command[0];
    message[10] = 1;
    strcpy(message + HEADER, "{\"operation\":\"call\",\"name\":\"");
    strncat(message + HEADER, name, (size_t)(end - name));
    strcat(message + HEADER, "\"}");
    length += (int)strlen(message + HEADER);
    length = call_back(slot, (byte*)message, length);
    free(message);
    return length;
}

typedef struct {
    const byte* command;
    const char* text;
    response_type response;
} elsewhere_type;

static void* call_python_elsewhere(void* argument) {
    elsewhere_type* work = argument;
    call_python(0, work->command, work->text);
    work->response = waiting[0];
    return NULL;
}

static int call_python_on_a_new_thread(int slot, const byte* command, const char* text) {
    elsewhere_type work = {command, text, {NULL, 0}};
    pthread_t thread;
    pthread_create(&thread, NULL, call_python_elsewhere, &work);
    pthread_join(thread, NULL);
    if (work.response.bytes == NULL) return -2;
    keep(slot, work.response.bytes, work.response.length);
    free(work.response.bytes);
    return work.response.length;
}

static int execute(int slot, const byte* command, const char* text) {
    const char* arguments = strstr(text, "\"arguments\":");
    char* body;
    int length;
    if (strstr(text, "\"name\":\"callback\"")) return call_python(slot, command, text);
    if (strstr(text, "\"name\":\"callback_elsewhere\""))
        return call_python_on_a_new_thread(slot, command, text);
    unreadable = strstr(text, "\"name\":\"unreadable\"") != NULL;
    if (strstr(text, "\"name\":\"fail\"")) {
        error_text = "no luck \xff today";
        return -2;
    }
    body = calloc(1, strlen(text) + 16);
    strcpy(body, "{\"value\":");
    strncat(body, arguments + 12, strlen(arguments) - 13);
    strcat(body, "}");
    length = answer(slot, command, 2, body, (int)strlen(body));
    free(body);
    return length;
}

int SetCallback(callback_type function) {
    callback = function;
    return function == NULL;
}

const char* GetNativeError(void) {
    return error_text;
}

int SendCommand(byte* message, int length) {
    char* text;
    int result, slot;
    network_is_current = message[2] != 0;
    slot = network_is_current ? NETWORK : message[0];
    if (message[10] == 11 && message[0] == 5) return call_back(slot, message, length);
    text = calloc(1, (size_t)(length - HEADER) + 1);
    memcpy(text, message + HEADER, (size_t)(length - HEADER));
    result = execute(slot, message, text);
    free(text);
    return result;
}

int ReadResponse(byte* buffer, int length) {
    response_type* response = &waiting[network_is_current ? NETWORK : buffer[0]];
    if (unreadable || response->bytes == NULL) {
        error_text = unreadable ? "cannot read" : "no response waits on this channel";
        unreadable = 0;
        return -3;
    }
    memcpy(buffer, response->bytes,
           (size_t)(length < response->length ? length : response->length));
    free(response->bytes);
    response->bytes = NULL;
    return 0;
}

/* The configuration: the latest text, with its kind before it. "bad" is refused. */
static char configured[256];

static int configure(const char* kind, const char* text) {
    if (strcmp(text, "bad") == 0) return -1;
    configured[0] = '\0';
    strcat(configured, kind);
    strncat(configured, text, sizeof configured - strlen(kind) - 1);
    return 0;
}

int SetConfigSource(const char* source) {
    return configure("source ", source);
}

int SetWorkingDirectory(const char* path) {
    return configure("directory ", path);
}

const char* GetConfigured(void) {
    return configured;
}

/* For the tests: how many responses of this thread wait to be read. */
int CountWaitingResponses(void) {
    int slot, count = 0;
    for (slot = 0; slot < SLOTS; ++slot) count += waiting[slot].bytes != NULL;
    return count;
}
