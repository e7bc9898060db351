cmake_policy(SET CMP0057 NEW)  # if(... IN_LIST ...)
# Checks that the shared library exports exactly the C interface: every name below, nothing
# else, and no C++ (mangled) symbol. Run as: cmake -DLIB=<path> -P check_exports.cmake
set(expected
  qxSetupLib setDebugTrace qxMaskBBox qxMaskAlpha
  qxDrawLine8u qxFloodFillAlpha qxShowImageAlpha qxScaleAlpha qxShowKeepBlend
  qxColorRangeSelect qxDesaturation qxfilterIm8u qxRGB2YCbCrAutoLevel qxPreviewAutoLevel
  qxKeepCutToAlpha qxRecoverForeground qxRecoverForegroundCell qxHairSelect
  qxGrabCut qxGrabCutDeleteBuf qxGrabCutEdgeGen)
execute_process(COMMAND nm -D --defined-only ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REPLACE "\n" ";" lines "${out}")
set(found "")
foreach(line ${lines})
  if(line MATCHES "^[0-9a-f]+ ([A-Za-z]) (.+)$")
    set(kind ${CMAKE_MATCH_1})
    set(name ${CMAKE_MATCH_2})
    if(name MATCHES "^_Z")
      message(FATAL_ERROR "C++ symbol exported: ${name}")
    endif()
    if(kind STREQUAL "T" OR kind STREQUAL "i")
      list(APPEND found ${name})
    endif()
  endif()
endforeach()
foreach(name ${expected})
  if(NOT name IN_LIST found)
    message(FATAL_ERROR "missing export: ${name}")
  endif()
endforeach()
foreach(name ${found})
  if(NOT name IN_LIST expected)
    message(FATAL_ERROR "unexpected export: ${name}")
  endif()
endforeach()
list(LENGTH found n)
message(STATUS "exports ok: ${n} C functions")
