// Prints the Pythons that the tests with a real interpreter run on. Fails when there is none.
#include <iostream>

#include "Tests/Support/Pythons.h"

int main() {
    const std::vector<Python> pythons = InstalledPythons();
    for (const Python& python : pythons) std::cout << python << "\n";
    if (pythons.empty()) std::cout << "no shared library of a CPython 3.6 to 3.14 was found\n";
    return pythons.empty() ? 1 : 0;
}
