# End-to-end checks of the qxmatte command line: bad input gives a one-line message naming the
# file, a non-zero exit and no output file; good input writes the alpha and the cut-out.
# Run as: cmake -DQXMATTE=<path> -DWORK=<dir> -P qxmatte_cli.cmake
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})

# Plain-text PNM images that OpenCV reads: a w x h grey plane of one value, and a colour one.
function(write_pgm path w h value)
  set(body "P2\n${w} ${h}\n255\n")
  math(EXPR n "${w} * ${h}")
  string(REPEAT "${value} " ${n} pixels)
  file(WRITE ${path} "${body}${pixels}\n")
endfunction()
function(write_ppm path w h)
  set(body "P3\n${w} ${h}\n255\n")
  math(EXPR n "${w} * ${h}")
  string(REPEAT "200 40 90 " ${n} pixels)
  file(WRITE ${path} "${body}${pixels}\n")
endfunction()

function(expect_failure what pattern)
  execute_process(COMMAND ${QXMATTE} ${ARGN} -q RESULT_VARIABLE rc ERROR_VARIABLE err
                  OUTPUT_VARIABLE out)
  if(rc EQUAL 0)
    message(FATAL_ERROR "${what}: exit 0, expected a failure")
  endif()
  if(NOT err MATCHES "${pattern}")
    message(FATAL_ERROR "${what}: message '${err}' does not match '${pattern}'")
  endif()
  string(REGEX MATCHALL "\n" lines "${err}")
  list(LENGTH lines nlines)
  if(NOT nlines EQUAL 1)
    message(FATAL_ERROR "${what}: expected one line, got '${err}'")
  endif()
  if(EXISTS ${WORK}/out.png)
    message(FATAL_ERROR "${what}: left an output file behind")
  endif()
  file(GLOB leftovers ${WORK}/.qxmatte-*)
  if(leftovers)
    message(FATAL_ERROR "${what}: left a temporary file behind: ${leftovers}")
  endif()
endfunction()

write_ppm(${WORK}/image.ppm 40 30)
write_pgm(${WORK}/small.pgm 20 30 128)
write_pgm(${WORK}/decided.pgm 40 30 255)
write_pgm(${WORK}/undecided.pgm 40 30 128)
file(WRITE ${WORK}/broken.png "this is not an image\n")

expect_failure("missing image" "missing\\.png: no such file"
               trimap ${WORK}/missing.png ${WORK}/decided.pgm -o ${WORK}/out.png)
expect_failure("unreadable tri-map" "broken\\.png: not a readable image"
               trimap ${WORK}/image.ppm ${WORK}/broken.png -o ${WORK}/out.png)
expect_failure("sizes differ" "small\\.pgm: tri-map is 20x30, image is 40x30"
               trimap ${WORK}/image.ppm ${WORK}/small.pgm -o ${WORK}/out.png)
expect_failure("nothing undecided" "decided\\.pgm: the tri-map has no undecided pixel"
               trimap ${WORK}/image.ppm ${WORK}/decided.pgm -o ${WORK}/out.png)
expect_failure("unwritable output" "nowhere/out\\.png: cannot write"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/nowhere/out.png)

expect_failure("unknown output format" "out\\.xyz: cannot write the image \\(unknown extension\\)"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.xyz)
expect_failure("keep-cut without strokes" "undecided\\.pgm: too few strokes"
               keepcut ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png)
expect_failure("keep-cut sizes differ" "small\\.pgm: stroke image is 20x30, image is 40x30"
               keepcut ${WORK}/image.ppm ${WORK}/small.pgm -o ${WORK}/out.png)
expect_failure("keep-cut cut-out folder missing" "nowhere/cut\\.png: cannot write"
               keepcut ${WORK}/image.ppm ${WORK}/decided.pgm -o ${WORK}/out.png
               --cutout ${WORK}/nowhere/cut.png)
expect_failure("foreground sizes differ" "small\\.pgm: alpha is 20x30, image is 40x30"
               foreground ${WORK}/image.ppm ${WORK}/small.pgm -o ${WORK}/out.png)

expect_failure("bad vector stroke" "--keep takes X0,Y0,X1,Y1,R"
               keepcut ${WORK}/image.ppm -o ${WORK}/out.png --keep 1,2,3)
expect_failure("unknown foreground method" "--method takes least-squares or sampling"
               foreground ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png --method x)

# Vector strokes alone: a keep stroke in the middle, cut strokes along two sides.
execute_process(COMMAND ${QXMATTE} keepcut ${WORK}/image.ppm -o ${WORK}/vec.png -q
                        --keep 15,12,25,18,2 --cut 0,0,39,0,1 --cut 0,29,39,29,1
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/vec.png)
  message(FATAL_ERROR "keepcut with vector strokes failed: ${rc} ${err}")
endif()
execute_process(COMMAND ${QXMATTE} foreground ${WORK}/image.ppm ${WORK}/undecided.pgm
                        -o ${WORK}/fgs.png --method sampling RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/fgs.png)
  message(FATAL_ERROR "foreground --method sampling failed: ${rc} ${err}")
endif()

# A flat alpha of one colour: the recovered foreground is the image's colour.
execute_process(COMMAND ${QXMATTE} foreground ${WORK}/image.ppm ${WORK}/undecided.pgm
                        -o ${WORK}/fg.png RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/fg.png)
  message(FATAL_ERROR "foreground on a flat image failed: ${rc} ${err}")
endif()

# Good input: the demo's scene through the trimap command.
execute_process(COMMAND ${QXMATTE} demo -o ${WORK}/demo -q RESULT_VARIABLE rc OUTPUT_VARIABLE out)
if(NOT rc EQUAL 0 OR NOT out MATCHES "SAD [0-9.]+ \\(thousands\\), MSE [0-9.]+")
  message(FATAL_ERROR "demo failed: ${rc} ${out}")
endif()
string(REGEX MATCH "SAD ([0-9.]+)" _ "${out}")
if(CMAKE_MATCH_1 GREATER 8.0)
  message(FATAL_ERROR "demo accuracy out of range: SAD ${CMAKE_MATCH_1}")
endif()
execute_process(COMMAND ${QXMATTE} trimap ${WORK}/demo/image.png ${WORK}/demo/trimap.png
                        -o ${WORK}/alpha.png --cutout ${WORK}/cutout.png -q
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/alpha.png OR NOT EXISTS ${WORK}/cutout.png)
  message(FATAL_ERROR "trimap on the demo scene failed: ${rc} ${err}")
endif()
file(SHA256 ${WORK}/alpha.png got)
file(SHA256 ${WORK}/demo/alpha.png want)
if(NOT got STREQUAL want)
  message(FATAL_ERROR "the trimap command and the demo disagree on the same scene")
endif()
if(NOT out MATCHES "keep-cut accuracy over the unpainted pixels: SAD ([0-9.]+)")
  message(FATAL_ERROR "demo printed no keep-cut accuracy: ${out}")
endif()
if(CMAKE_MATCH_1 GREATER 8.0)
  message(FATAL_ERROR "demo keep-cut accuracy out of range: SAD ${CMAKE_MATCH_1}")
endif()
execute_process(COMMAND ${QXMATTE} keepcut ${WORK}/demo/image.png ${WORK}/demo/strokes.png
                        -o ${WORK}/kc_alpha.png --cutout ${WORK}/kc_cutout.png -q
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/kc_cutout.png)
  message(FATAL_ERROR "keepcut on the demo scene failed: ${rc} ${err}")
endif()
file(SHA256 ${WORK}/kc_alpha.png got)
file(SHA256 ${WORK}/demo/keepcut_alpha.png want)
if(NOT got STREQUAL want)
  message(FATAL_ERROR "the keepcut command and the demo disagree on the same scene")
endif()
message(STATUS "qxmatte command line ok")
