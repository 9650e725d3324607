#!/bin/sh
# Runs the Python package's tests against the library just built: run_pytest.sh LIBRARY SOURCE_DIR.
# The package's requirements come from Debian's packages, so Debian's interpreter is tried first;
# another python3 on the PATH (a pyenv one, say) may lack them. Exits 77, which CTest reports as a
# skip, when no interpreter has numpy and pytest.
library=$1
source=$2
for python in /usr/bin/python3 python3; do
  if "$python" -c "import numpy, pytest" 2>/dev/null; then
    # Nothing is written into the source tree: no bytecode, no pytest cache.
    PYTHONDONTWRITEBYTECODE=1 TAVIX_LIBRARY="$library" PYTHONPATH="$source/python" \
      exec "$python" -m pytest -q -p no:cacheprovider "$source/python/tests"
  fi
done
echo "skipped: no python3 with numpy and pytest (Debian's python3-numpy and python3-pytest)"
exit 77
