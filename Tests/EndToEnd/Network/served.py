"""What the hosts of these tests serve."""

import os
import time


def process():
    return os.getpid()


def fail(text):
    raise LookupError(text)


def repeat(text, count):
    return text * count


def write_and_sleep(path, seconds, value):
    """Leave a file as the sign that the command has begun."""
    with open(path, "w"):
        pass
    time.sleep(seconds)
    return value


def append(path, line):
    """Add a line to a file, which so tells how often a command was executed."""
    with open(path, "a") as file:
        file.write(line + "\n")
    return os.getpid()


class Counter(object):
    def __init__(self, value):
        self.value = value

    def add(self, number):
        self.value += number
        return self.value
