"""The command format (`command`, `values`) and the two sides that speak it (`receiver`, `transmitter`)."""
