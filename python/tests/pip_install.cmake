# `pip install ./python` with Debian's setuptools and no network, as the README gives it: into a
# virtual environment that sees the system's packages (NumPy from apt), then imported from there.
# (The README's system-wide form is the same build with pip's --break-system-packages.)
# Run as: cmake -DPYTHON=<python3> -DSOURCE=<python/> -DWORK=<scratch> -DLIBRARY=<built .so>
#               -P pip_install.cmake
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

include(${CMAKE_CURRENT_LIST_DIR}/../../tests/package/scratch_install.cmake)

# A copy of the source folder: pip builds in place, and the source tree stays clean.
file(COPY ${SOURCE}/ DESTINATION ${WORK}/python PATTERN tests EXCLUDE PATTERN build EXCLUDE
     PATTERN "*.egg-info" EXCLUDE PATTERN __pycache__ EXCLUDE)
set(pip_flags --no-build-isolation --no-index --disable-pip-version-check --quiet)
set(check ${CMAKE_COMMAND} -E env --unset=PYTHONPATH --unset=LD_LIBRARY_PATH
    QXIVEILON31_LIBRARY=${LIBRARY} PYTHONDONTWRITEBYTECODE=1)

run("venv" ${PYTHON} -m venv --system-site-packages ${WORK}/venv)
run("pip install into the venv" ${WORK}/venv/bin/pip install ${pip_flags} ./python)
run("import from the venv" ${check} ${WORK}/venv/bin/python ${SOURCE}/tests/installed_check.py
    ${WORK}/venv)

file(REMOVE_RECURSE ${WORK})
