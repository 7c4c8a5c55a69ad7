"""The side that executes other runtimes' commands in this interpreter; the bridge imports the module `Receiver`."""
