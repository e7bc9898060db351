# `cmake --install` into a scratch prefix, the tree moved elsewhere, and the package imported
# with PYTHONPATH at its folder and nothing else: no QXIVEILON31_LIBRARY, no LD_LIBRARY_PATH.
# It must find the library installed with it.
# Run as: cmake -DPYTHON=<python3> -DBUILD=<build dir> -DWORK=<scratch> -DPYDIR=<package folder
#               relative to the prefix> -DSOURCE=<python/> -P cmake_install.cmake
include(${CMAKE_CURRENT_LIST_DIR}/../../tests/package/scratch_install.cmake)
scratch_install()
if(NOT EXISTS ${prefix}/${PYDIR}/qxiveilon31/__init__.py)
  message(FATAL_ERROR "not installed: ${PYDIR}/qxiveilon31/__init__.py")
endif()
run("import the installed package" ${CMAKE_COMMAND} -E env --unset=QXIVEILON31_LIBRARY
    --unset=LD_LIBRARY_PATH PYTHONPATH=${prefix}/${PYDIR} PYTHONDONTWRITEBYTECODE=1
    ${PYTHON} ${SOURCE}/tests/installed_check.py ${prefix}/${PYDIR} ${prefix})
message(STATUS "import the installed package: ${out}")
file(REMOVE_RECURSE ${WORK})
