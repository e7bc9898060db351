# Installs the built project into a temporary prefix, moves the installed tree elsewhere (a
# package must not depend on where it was installed), and builds and runs a C host against it
# twice: with pkg-config and with find_package(qxiveilon31).
# Run as: cmake -DBUILD=<build dir> -DWORK=<scratch dir> -DHOST=<tests/package/host>
#               -DCC=<C compiler> -DVERSION=<x.y.z> -DNODE=<version node> -DLIBDIR=<lib dir>
#               -DGENERATOR=<generator> [-DHOST_FLAGS=<C and link flags>] -P install_host.cmake
include(${CMAKE_CURRENT_LIST_DIR}/scratch_install.cmake)
scratch_install()
foreach(f include/qxiveilon31.h ${LIBDIR}/libqxiveilon31.so ${LIBDIR}/pkgconfig/qxiveilon31.pc
        ${LIBDIR}/cmake/qxiveilon31/qxiveilon31Config.cmake)
  if(NOT EXISTS ${prefix}/${f})
    message(FATAL_ERROR "not installed: ${f}")
  endif()
endforeach()
# No trace of the build or the install location may remain in the package's files.
foreach(f ${LIBDIR}/pkgconfig/qxiveilon31.pc ${LIBDIR}/cmake/qxiveilon31/qxiveilon31Config.cmake
        ${LIBDIR}/cmake/qxiveilon31/qxiveilon31Targets.cmake)
  file(READ ${prefix}/${f} text)
  string(FIND "${text}" "${WORK}" at)
  if(NOT at EQUAL -1)
    message(FATAL_ERROR "${f} names the install location ${WORK}/installed")
  endif()
endforeach()

# pkg-config, seeing only the moved tree.
set(pc env PKG_CONFIG_PATH=${prefix}/${LIBDIR}/pkgconfig
       PKG_CONFIG_LIBDIR=${prefix}/${LIBDIR}/pkgconfig pkg-config)
run("pkg-config --modversion" ${CMAKE_COMMAND} -E ${pc} --modversion qxiveilon31)
string(STRIP "${out}" got)
if(NOT got STREQUAL VERSION)
  message(FATAL_ERROR "pkg-config --modversion: ${got}, expected ${VERSION}")
endif()
run("pkg-config --cflags --libs" ${CMAKE_COMMAND} -E ${pc} --cflags --libs qxiveilon31)
string(STRIP "${out}" flags)
separate_arguments(flags UNIX_COMMAND "${flags}")
separate_arguments(host_flags UNIX_COMMAND "${HOST_FLAGS}")
run("pkg-config host build" ${CC} ${host_flags} -std=c99 -pedantic -Wall -Werror
    "-DQX_EXPECTED_VERSION=\"${VERSION}\"" ${HOST}/host.c ${flags} -o ${WORK}/host_pc)
run("pkg-config host run" ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${prefix}/${LIBDIR}
    ${WORK}/host_pc)
message(STATUS "pkg-config host: ${out}")
# The host's references carry the library's version node.
run("nm host" nm -D --undefined-only --with-symbol-versions ${WORK}/host_pc)
if(NOT out MATCHES "qxVersion@${NODE}" OR NOT out MATCHES "qxMaskBBox@${NODE}")
  message(FATAL_ERROR "the host's references lack the version node ${NODE}:\n${out}")
endif()

# find_package, with the moved tree on the prefix path.
run("find_package host configure" ${CMAKE_COMMAND} -S ${HOST} -B ${WORK}/host_build
    -G ${GENERATOR} -DCMAKE_C_COMPILER=${CC} -DCMAKE_PREFIX_PATH=${prefix}
    -DQX_EXPECTED=${VERSION} -DCMAKE_BUILD_TYPE=Release "-DCMAKE_C_FLAGS=${HOST_FLAGS}")
run("find_package host build" ${CMAKE_COMMAND} --build ${WORK}/host_build)
run("find_package host run" ${WORK}/host_build/host)
message(STATUS "find_package host: ${out}")

# The installed tool finds the moved library through its relative run path.
if(EXISTS ${prefix}/bin/qxmatte)
  run("installed qxmatte --version" ${prefix}/bin/qxmatte --version)
  if(NOT out MATCHES "library ${VERSION}")
    message(FATAL_ERROR "installed qxmatte --version: ${out}")
  endif()
endif()
file(REMOVE_RECURSE ${WORK})
message(STATUS "install, move and host builds ok")
