# Shared by the install tests (cmake -P scripts): run() and an install of the build into a
# scratch folder that is then moved, since an installed tree must not depend on where it was
# installed. Expects BUILD (the build folder) and WORK (a scratch folder, emptied first).

# Runs a command in WORK; stops the test with its output when it fails. Its standard output is
# left in `out`.
function(run what)
  execute_process(COMMAND ${ARGN} WORKING_DIRECTORY ${WORK} RESULT_VARIABLE rc
                  OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()

# Installs into WORK/installed and moves the tree to WORK/moved, set as `prefix`. Only the
# default component: the GIMP plug-in goes into a user's GIMP folder, which a test must not touch.
macro(scratch_install)
  file(REMOVE_RECURSE ${WORK})
  file(MAKE_DIRECTORY ${WORK})
  run("install" ${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/installed
      --component Unspecified)
  file(RENAME ${WORK}/installed ${WORK}/moved)
  set(prefix ${WORK}/moved)
endmacro()
