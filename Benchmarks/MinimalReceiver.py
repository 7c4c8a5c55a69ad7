"""The receiver that the benchmarks put beside the bridge: bytes in, bytearray out, nothing else. A
heartbeat is its slow command."""

import time


class Receiver:
    @staticmethod
    def send_command(command):
        return bytearray(command)

    @staticmethod
    def heart_beat(command):
        time.sleep(0.1)
        return bytearray(command)

    @staticmethod
    def initialize_exception_handler():
        return None
