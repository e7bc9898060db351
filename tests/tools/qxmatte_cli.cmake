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
# GrabCut with a vector cut stroke through the demo's background corner.
execute_process(COMMAND ${QXMATTE} grabcut ${WORK}/demo/image.png --rect 100,50,1000,800
                        --cut 110,60,300,60,3 -o ${WORK}/gc_vec.png -q
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/gc_vec.png)
  message(FATAL_ERROR "grabcut with a vector stroke failed: ${rc} ${err}")
endif()
message(STATUS "qxmatte command line ok")

# ---- grabcut and cutout ----------------------------------------------------------------------
cmake_policy(SET CMP0053 NEW)  # plain ${} references in the strings below
# A 120 x 100 scene of two colours: the subject fills columns 40..79 of rows 30..69.
function(write_two_colour_ppm path)
  string(REPEAT "20 200 60 " 120 ground_row)
  string(REPEAT "20 200 60 " 40 side)
  string(REPEAT "220 40 170 " 40 middle)
  string(REPEAT "${ground_row}\n" 30 ground_rows)
  string(REPEAT "${side}${middle}${side}\n" 40 subject_rows)
  file(WRITE ${path} "P3\n120 100\n255\n${ground_rows}${subject_rows}${ground_rows}")
endfunction()
write_two_colour_ppm(${WORK}/scene.ppm)

# The hex bytes of pixel (x, y) of a binary 120 x 100 PGM as OpenCV writes it.
function(pgm_pixel path x y out)
  file(READ ${path} header LIMIT 20)
  string(FIND "${header}" "255\n" at)
  math(EXPR offset "${at} + 4 + ${y} * 120 + ${x}")
  file(READ ${path} byte OFFSET ${offset} LIMIT 1 HEX)
  set(${out} ${byte} PARENT_SCOPE)
endfunction()

# Checks pixels of a PGM; each probe is x:y:hex.
function(expect_pixels what path)
  foreach(probe ${ARGN})
    string(REPLACE ":" ";" probe "${probe}")
    list(GET probe 0 x)
    list(GET probe 1 y)
    list(GET probe 2 want)
    pgm_pixel(${path} ${x} ${y} got)
    if(NOT got STREQUAL want)
      message(FATAL_ERROR "${what} at ${x},${y}: ${got}, expected ${want}")
    endif()
  endforeach()
endfunction()

expect_failure("grabcut rectangle outside" "--rect 0,0,121,100 is not inside the 120x100 image"
               grabcut ${WORK}/scene.ppm --rect 0,0,121,100 -o ${WORK}/out.png)
expect_failure("grabcut rectangle text" "--rect takes X,Y,W,H"
               grabcut ${WORK}/scene.ppm --rect 5,5,0,9 -o ${WORK}/out.png)
expect_failure("grabcut strokes size" "small\\.pgm: stroke image is 20x30, image is 120x100"
               grabcut ${WORK}/scene.ppm --rect 0,0,120,100 --strokes ${WORK}/small.pgm
               -o ${WORK}/out.png)
expect_failure("grabcut tri-map folder" "nowhere/t\\.png: cannot write"
               grabcut ${WORK}/scene.ppm --rect 0,0,120,100 -o ${WORK}/out.png
               --trimap ${WORK}/nowhere/t.png)
expect_failure("cutout missing image" "missing\\.png: no such file"
               cutout ${WORK}/missing.png --rect 0,0,10,10 -o ${WORK}/out.png)
expect_failure("cutout band" "--band takes 1 to 32767"
               cutout ${WORK}/scene.ppm --rect 0,0,10,10 --band 0 -o ${WORK}/out.png)

# The selection of a two-colour scene is the subject exactly; the tri-map has its band on the
# subject's edge.
execute_process(COMMAND ${QXMATTE} grabcut ${WORK}/scene.ppm --rect 10,10,100,80
                        -o ${WORK}/sel.pgm --band 4 --trimap ${WORK}/tri.pgm -q
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/sel.pgm OR NOT EXISTS ${WORK}/tri.pgm)
  message(FATAL_ERROR "grabcut on the two-colour scene failed: ${rc} ${err}")
endif()
file(READ ${WORK}/sel.pgm header LIMIT 20)
string(FIND "${header}" "255\n" at)
math(EXPR at "${at} + 4")
file(READ ${WORK}/sel.pgm pixels OFFSET ${at} HEX)
string(REPEAT "00" 120 ground_row)
string(REPEAT "00" 40 side)
string(REPEAT "ff" 40 middle)
string(REPEAT "${ground_row}" 30 ground_rows)
string(REPEAT "${side}${middle}${side}" 40 subject_rows)
if(NOT pixels STREQUAL "${ground_rows}${subject_rows}${ground_rows}")
  message(FATAL_ERROR "grabcut: the selection is not the subject")
endif()
# --band 4: a disc of radius 2, two pixels on each side of the edge.
expect_pixels("grabcut tri-map" ${WORK}/tri.pgm 60:50:ff 42:50:ff 41:50:80 38:50:80 37:50:00
              60:31:80 60:28:80 60:27:00 60:32:ff 5:5:00)

# A keep stroke on the background (rows 40..49, columns 20..29) is selected whatever its colour,
# and the subject stays selected.
string(REPEAT "128 " 120 unpainted_row)
string(REPEAT "128 " 20 unpainted_side)
string(REPEAT "255 " 10 keep)
string(REPEAT "128 " 90 rest)
string(REPEAT "${unpainted_row}\n" 40 top_rows)
string(REPEAT "${unpainted_side}${keep}${rest}\n" 10 stroke_rows)
string(REPEAT "${unpainted_row}\n" 50 bottom_rows)
file(WRITE ${WORK}/strokes.pgm "P2\n120 100\n255\n${top_rows}${stroke_rows}${bottom_rows}")
execute_process(COMMAND ${QXMATTE} grabcut ${WORK}/scene.ppm --rect 10,10,100,80
                        --strokes ${WORK}/strokes.pgm -o ${WORK}/sel2.pgm -q
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "grabcut with strokes failed: ${rc} ${err}")
endif()
expect_pixels("grabcut with strokes" ${WORK}/sel2.pgm 20:40:ff 29:49:ff 60:50:ff 79:69:ff
              15:85:00 5:45:00)

# The whole workflow: an RGBA cut-out and its alpha, opaque on the subject, clear elsewhere.
execute_process(COMMAND ${QXMATTE} cutout ${WORK}/scene.ppm --rect 10,10,100,80 --band 6
                        -o ${WORK}/cut.png --alpha ${WORK}/alpha.pgm -q
                RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/cut.png)
  message(FATAL_ERROR "cutout on the two-colour scene failed: ${rc} ${err}")
endif()
# Opaque (240 or more) on the subject, clear (15 or less) off it, its corners included.
foreach(probe "60;50;1" "40;30;1" "79;69;1" "39;50;0" "60;70;0" "5;5;0" "115;95;0")
  list(GET probe 0 x)
  list(GET probe 1 y)
  list(GET probe 2 opaque)
  pgm_pixel(${WORK}/alpha.pgm ${x} ${y} got)
  math(EXPR value "0x${got}")
  if((opaque AND value LESS 240) OR (NOT opaque AND value GREATER 15))
    message(FATAL_ERROR "cutout alpha at ${x},${y}: ${value}")
  endif()
endforeach()
message(STATUS "qxmatte grabcut and cutout ok")
