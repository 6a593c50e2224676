"""site_dir.py PREFIX: prints the directory for Python modules installed
under PREFIX. That is the entry of the interpreter's module path that lies
under PREFIX and ends in site-packages or dist-packages (Debian's python3
searches PREFIX/lib/python3/dist-packages for /usr and
PREFIX/lib/python3.X/dist-packages for /usr/local); for any other prefix the
platform library directory of the posix_prefix scheme with PREFIX
substituted (then add it to PYTHONPATH)."""
import os
import sys
import sysconfig

prefix = os.path.abspath(sys.argv[1])
for entry in sys.path:
    entry = os.path.abspath(entry) if entry else ""
    if entry.startswith(os.path.join(prefix, "lib") + os.sep) and entry.endswith(("site-packages", "dist-packages")):
        print(entry)
        break
else:
    print(sysconfig.get_path("platlib", "posix_prefix", vars={"base": prefix, "platbase": prefix}))
