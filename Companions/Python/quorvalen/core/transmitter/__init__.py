"""The side that sends commands to other runtimes, over the native bridge library and ctypes."""

from quorvalen.core.transmitter.connection import Connection, RemoteObject, connect
from quorvalen.core.transmitter.library import set_callback, set_config_source, set_working_directory

__all__ = ["Connection", "RemoteObject", "connect", "set_callback", "set_config_source", "set_working_directory"]
