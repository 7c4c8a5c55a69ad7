"""A receiver for tests: runs the command's body as Python and returns the variable `result`, which is
the command itself unless the body sets it. Unlike the package's receiver it lets everything out."""


class Receiver(object):
    @staticmethod
    def send_command(message):
        scope = {"message": message, "result": bytearray(message)}
        exec(bytes(message[11:]).decode("utf-8"), scope)
        return scope["result"]

    @staticmethod
    def heart_beat(message):
        return bytearray(b"alive")

    @staticmethod
    def initialize_exception_handler():
        pass

    @staticmethod
    def get_runtime_info():
        return "Test receiver"
