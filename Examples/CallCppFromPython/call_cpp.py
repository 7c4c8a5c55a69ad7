"""Calls C++ functions, which live in this very process, and is called back by one of them."""

import os
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "..", "Binaries", "Python"))

import quorvalen  # noqa: E402  (found through the line above)


def progress(number, found):
    print("  C++ is at {}: {} primes".format(number, found))


def main():
    cpp = quorvalen.connect("Cpp")
    names = cpp.call("quorvalen.load_plugin", os.path.join(HERE, "primes.so"))
    print("C++ offers", ", ".join(names))

    print("1 + 2 =", cpp.call("add", 1, 2))
    print("4099 is prime:", cpp.call("primes.is_prime", 4099))
    print("Primes up to 10000:", cpp.call("primes.count", 10000, "__main__.progress"))
    try:
        cpp.call("primes.count", -1, "__main__.progress")
    except quorvalen.RemoteError as error:
        print("C++ threw", error)


if __name__ == "__main__":
    main()
