"""The test bed: a private network, servers on it, and a Windows (Wine) for each processor.

It runs as root inside the Debian 13 room and touches nothing outside the process's own namespaces and one working
folder. The demonstration and the whole-run tests share it.
"""
