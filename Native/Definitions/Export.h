// The one macro that makes a name visible outside the library; all else is hidden.
#pragma once

#define QUORVALEN_EXPORT __attribute__((visibility("default")))
