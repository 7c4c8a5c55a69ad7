// The C++ half of the example: a plug-in with three functions for other runtimes to call.
#include <Quorvalen/Cpp.h>

#include <stdexcept>
#include <string>

namespace {

int add(int a, int b) {
    return a + b;
}

bool isPrime(int number) {
    for (int divisor = 2; divisor * divisor <= number; ++divisor) {
        if (number % divisor == 0) return false;
    }
    return number > 1;
}

// Tells the calling Python how far it is, by a call back into the program that is waiting for it.
int countPrimes(int limit, const std::string& progressFunction) {
    if (limit < 0) throw std::domain_error("the limit must not be negative");
    const Quorvalen::Cpp::Runtime python("Python");
    int found = 0;
    for (int number = 1; number <= limit; ++number) {
        if (isPrime(number)) ++found;
        if (number % 2500 == 0) python.Call(progressFunction, {number, found});
    }
    return found;
}

}  // namespace

QUORVALEN_PLUGIN {
    Quorvalen::Cpp::Register("add", &add);
    Quorvalen::Cpp::Register("primes.is_prime", &isPrime);
    Quorvalen::Cpp::Register("primes.count", &countPrimes);
}
