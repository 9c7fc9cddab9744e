"""`python3 -m lumaris_publish`."""

import sys

from .cli import main

sys.exit(main())
