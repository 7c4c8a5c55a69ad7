// The real CPython libraries of this machine: Debian's, and others in the usual places.
#pragma once

#include <ostream>
#include <string>
#include <vector>

struct Python {
    std::string version;  // "3.11"
    int minor;            // 11
    std::string library;  // the file of the shared library
    std::string home;     // the prefix of its standard library

    // A name that tells two installations of one version apart: "3_11" or "3_11_debian".
    std::string name;
};

std::ostream& operator<<(std::ostream& stream, const Python& python);

// Of every installation that has a shared library and its standard library, oldest version first.
std::vector<Python> InstalledPythons();

// For INSTANTIATE_TEST_SUITE_P.
std::string NameOf(const Python& python);
