"""Operator-side simulator for the qdquick gateway library.

It plays the cube, manage and plugin platforms and the message server on one
machine, so that a gateway can boot, register, heartbeat and push end to end.
"""

__all__ = ["main"]

VERSION = "1.0.0"  # the project's version
