"""The publisher's kit of Lumaris: makes publications that every client accepts, or says why it does not.

Each module is one concept: reading a package (`msi`, `program`), checking it (`checks`), the publication on the disk (`publication`,
`record`, `lock`), the commands of the command line (`stage`, `offer`, ...), and what stands around them. Standard library and `pefile` alone;
Python 3.11 and later.
"""

VERSION = "1.0"
