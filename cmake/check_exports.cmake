cmake_policy(SET CMP0057 NEW)  # if(... IN_LIST ...)
# Checks that the shared library exports exactly the C interface: every name below, nothing
# else, and no C++ (mangled) symbol, each under the version node NODE (QXIVEILON31_<major>).
# Run as: cmake -DLIB=<path> -DNODE=<version node> -P check_exports.cmake
if(NOT NODE)
  message(FATAL_ERROR "check_exports.cmake: NODE (the expected version node) not given")
endif()
set(expected
  qxSetupLib setDebugTrace qxVersion qxMaskBBox qxMaskAlpha
  qxDrawLine8u qxFloodFillAlpha qxShowImageAlpha qxScaleAlpha qxShowKeepBlend
  qxColorRangeSelect qxDesaturation qxfilterIm8u qxRGB2YCbCrAutoLevel qxPreviewAutoLevel
  qxKeepCutToAlpha qxRecoverForeground qxRecoverForegroundCell qxHairSelect
  qxGrabCut qxGrabCutDeleteBuf qxGrabCutEdgeGen qxStrokesToAlpha qxRecoverForegroundFull
  qxSetCancelFlag qxMaskAlphaPlain qxMaskAlphaFlow qxStrokesToAlphaFlow
  qxwMatteTrimap qxwMatteStrokes qxwRecoverForeground qxwSelectSubject qxwCutoutFromRect
  qxwDefaultBand qxwPaintStroke qxwDemoScene qxwRefineMask qxwFreeMemory qxwSubjectMask
  qxwCutoutSubject qxwGrabCutBegin qxwGrabCutCut qxwGrabCutTrimap qxwGrabCutEnd)
execute_process(COMMAND nm -D --defined-only --with-symbol-versions ${LIB} OUTPUT_VARIABLE out RESULT_VARIABLE rc)
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
      # name@@NODE: the default version of the name; a bare name has no version at all.
      if(NOT name MATCHES "^([A-Za-z0-9_]+)@@(.+)$")
        message(FATAL_ERROR "export without a symbol version: ${name}")
      endif()
      if(NOT CMAKE_MATCH_2 STREQUAL NODE)
        message(FATAL_ERROR "export ${name}: version ${CMAKE_MATCH_2}, expected ${NODE}")
      endif()
      list(APPEND found ${CMAKE_MATCH_1})
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
message(STATUS "exports ok: ${n} C functions, all under ${NODE}")
