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

# Exit codes as `qxmatte --help` lists them.
set(INPUT 1)
set(USAGE 2)
set(OUTPUT 3)
function(expect_failure what code pattern)
  execute_process(COMMAND ${QXMATTE} ${ARGN} -q RESULT_VARIABLE rc ERROR_VARIABLE err
                  OUTPUT_VARIABLE out)
  if(NOT rc EQUAL ${code})
    message(FATAL_ERROR "${what}: exit ${rc}, expected ${code} ('${err}')")
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

expect_failure("missing image" ${INPUT} "missing\\.png: no such file"
               trimap ${WORK}/missing.png ${WORK}/decided.pgm -o ${WORK}/out.png)
expect_failure("unreadable tri-map" ${INPUT} "broken\\.png: not a readable image"
               trimap ${WORK}/image.ppm ${WORK}/broken.png -o ${WORK}/out.png)
expect_failure("sizes differ" ${INPUT} "small\\.pgm: tri-map is 20x30, image is 40x30"
               trimap ${WORK}/image.ppm ${WORK}/small.pgm -o ${WORK}/out.png)
expect_failure("nothing undecided" ${INPUT} "decided\\.pgm: the tri-map has no undecided pixel"
               trimap ${WORK}/image.ppm ${WORK}/decided.pgm -o ${WORK}/out.png)
expect_failure("unwritable output" ${OUTPUT} "nowhere/out\\.png: cannot write"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/nowhere/out.png)

expect_failure("unknown output format" ${OUTPUT} "out\\.xyz: cannot write the image \\(unknown extension\\)"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.xyz)
expect_failure("keep-cut without strokes" ${INPUT} "undecided\\.pgm: too few strokes"
               keepcut ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png)
expect_failure("keep-cut sizes differ" ${INPUT} "small\\.pgm: stroke image is 20x30, image is 40x30"
               keepcut ${WORK}/image.ppm ${WORK}/small.pgm -o ${WORK}/out.png)
expect_failure("keep-cut cut-out folder missing" ${OUTPUT} "nowhere/cut\\.png: cannot write"
               keepcut ${WORK}/image.ppm ${WORK}/decided.pgm -o ${WORK}/out.png
               --cutout ${WORK}/nowhere/cut.png)
expect_failure("foreground sizes differ" ${INPUT} "small\\.pgm: alpha is 20x30, image is 40x30"
               foreground ${WORK}/image.ppm ${WORK}/small.pgm -o ${WORK}/out.png)

expect_failure("bad vector stroke" ${USAGE} "--keep takes X0,Y0,X1,Y1,R"
               keepcut ${WORK}/image.ppm -o ${WORK}/out.png --keep 1,2,3)
expect_failure("unknown foreground method" ${USAGE} "--method takes least-squares or sampling"
               foreground ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png --method x)

# A w x h tri-map, undecided (128) on rows first..last, background elsewhere.
function(write_band_pgm path w h first last)
  string(REPEAT "0 " ${w} ground)
  string(REPEAT "128 " ${w} band)
  set(rows "")
  math(EXPR end "${h} - 1")
  foreach(y RANGE ${end})
    if(y GREATER_EQUAL first AND y LESS_EQUAL last)
      string(APPEND rows "${band}\n")
    else()
      string(APPEND rows "${ground}\n")
    endif()
  endforeach()
  file(WRITE ${path} "P2\n${w} ${h}\n255\n${rows}")
endfunction()

# The mask box needs 24 rows: the undecided pixels and 12 rows either side, clipped to the
# image. One undecided row at the top of a 30-row image makes rows 0 to 12, too few; two rows
# in the middle (14, 15) make rows 2 to 27, enough.
write_band_pgm(${WORK}/top_row.pgm 40 30 0 0)
write_band_pgm(${WORK}/middle_rows.pgm 40 30 14 15)
expect_failure("too few undecided rows" ${INPUT}
               "top_row\\.pgm: too few undecided rows for the tri-map job: the undecided pixels lie on row 0, 13 rows with 12 rows of margin, the job needs at least 24"
               trimap ${WORK}/image.ppm ${WORK}/top_row.pgm -o ${WORK}/out.png)
execute_process(COMMAND ${QXMATTE} trimap ${WORK}/image.ppm ${WORK}/middle_rows.pgm
                        -o ${WORK}/middle_alpha.png -q RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/middle_alpha.png)
  message(FATAL_ERROR "trimap with 26 rows of box failed: ${rc} ${err}")
endif()
write_ppm(${WORK}/short.ppm 40 20)
write_pgm(${WORK}/short.pgm 40 20 128)
expect_failure("image too short" ${INPUT}
               "short\\.pgm: too few rows for the tri-map job: the image is 20 rows high, the job needs at least 24"
               trimap ${WORK}/short.ppm ${WORK}/short.pgm -o ${WORK}/out.png)

# A colour image where a grey plane is needed is refused, not turned into grey; a grey image
# saved as colour (equal channels) is taken as it is.
expect_failure("colour tri-map" ${INPUT} "image\\.ppm: tri-map is a colour image"
               trimap ${WORK}/image.ppm ${WORK}/image.ppm -o ${WORK}/out.png)
expect_failure("colour strokes" ${INPUT} "image\\.ppm: stroke image is a colour image"
               keepcut ${WORK}/image.ppm ${WORK}/image.ppm -o ${WORK}/out.png)
expect_failure("colour alpha" ${INPUT} "image\\.ppm: alpha is a colour image"
               foreground ${WORK}/image.ppm ${WORK}/image.ppm -o ${WORK}/out.png)
string(REPEAT "128 128 128 " 1200 grey_pixels)
file(WRITE ${WORK}/grey_as_colour.ppm "P3\n40 30\n255\n${grey_pixels}\n")
execute_process(COMMAND ${QXMATTE} foreground ${WORK}/image.ppm ${WORK}/grey_as_colour.ppm
                        -o ${WORK}/fg_grey.png RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0 OR NOT EXISTS ${WORK}/fg_grey.png)
  message(FATAL_ERROR "foreground with a grey alpha saved as colour failed: ${rc} ${err}")
endif()

# Outputs are checked before any work, all of them: a second output that can't be written
# leaves no first one behind.
expect_failure("cut-out without alpha" ${OUTPUT}
               "cut\\.jpg: cannot write the image \\(the format keeps no alpha; use PNG, TIFF or WebP\\)"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png
               --cutout ${WORK}/cut.jpg)
expect_failure("one path for two outputs" ${OUTPUT} "out\\.png: named for two outputs"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png
               --cutout ${WORK}/./out.png)
file(MAKE_DIRECTORY ${WORK}/folder.png)
expect_failure("output is a folder" ${OUTPUT} "folder\\.png: cannot write the image \\(it is a folder\\)"
               foreground ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png
               --cutout ${WORK}/folder.png)
file(MAKE_DIRECTORY ${WORK}/blocked_demo/composite.png)
expect_failure("demo output blocked" ${OUTPUT} "composite\\.png: cannot write the image \\(it is a folder\\)"
               demo -o ${WORK}/blocked_demo)
file(GLOB demo_left ${WORK}/blocked_demo/*)
if(NOT demo_left STREQUAL "${WORK}/blocked_demo/composite.png")
  message(FATAL_ERROR "the refused demo left files: ${demo_left}")
endif()

# Usage: one line that points to the command's help, exit 2; the help itself on standard output.
expect_failure("no output named" ${USAGE} "trimap: needs IMAGE, TRIMAP and -o ALPHA \\(qxmatte trimap --help\\)"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm)
expect_failure("unknown command" ${USAGE} "unknown command matte \\(qxmatte --help\\)"
               matte ${WORK}/image.ppm)
foreach(command trimap keepcut foreground grabcut cutout demo)
  execute_process(COMMAND ${QXMATTE} ${command} --help RESULT_VARIABLE rc OUTPUT_VARIABLE out
                  ERROR_VARIABLE err)
  if(NOT rc EQUAL 0 OR NOT out MATCHES "^usage: qxmatte ${command} "
     OR NOT out MATCHES "exit codes:.*\n  3  an output can't be written" OR err)
    message(FATAL_ERROR "qxmatte ${command} --help: ${rc} '${out}' '${err}'")
  endif()
endforeach()
execute_process(COMMAND ${QXMATTE} --version RESULT_VARIABLE rc OUTPUT_VARIABLE out)
if(NOT rc EQUAL 0 OR NOT out STREQUAL "qxmatte ${VERSION}, qxiveilon31 library ${VERSION}\n")
  message(FATAL_ERROR "qxmatte --version: ${rc} '${out}'")
endif()

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

expect_failure("grabcut rectangle outside" ${USAGE} "--rect 0,0,121,100 is not inside the 120x100 image"
               grabcut ${WORK}/scene.ppm --rect 0,0,121,100 -o ${WORK}/out.png)
expect_failure("grabcut rectangle text" ${USAGE} "--rect takes X,Y,W,H"
               grabcut ${WORK}/scene.ppm --rect 5,5,0,9 -o ${WORK}/out.png)
expect_failure("grabcut strokes size" ${INPUT} "small\\.pgm: stroke image is 20x30, image is 120x100"
               grabcut ${WORK}/scene.ppm --rect 0,0,120,100 --strokes ${WORK}/small.pgm
               -o ${WORK}/out.png)
expect_failure("grabcut tri-map folder" ${OUTPUT} "nowhere/t\\.png: cannot write"
               grabcut ${WORK}/scene.ppm --rect 0,0,120,100 -o ${WORK}/out.png
               --trimap ${WORK}/nowhere/t.png)
expect_failure("cutout missing image" ${INPUT} "missing\\.png: no such file"
               cutout ${WORK}/missing.png --rect 0,0,10,10 -o ${WORK}/out.png)
expect_failure("cutout band" ${USAGE} "--band takes 1 to 32767"
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

# A cut-out whose matting stage can't run (a 20-row image: the mask box needs 24) fails after
# GrabCut, naming the cause, and leaves neither the cut-out nor the alpha behind.
string(REPEAT "20 200 60 " 120 short_ground)
string(REPEAT "20 200 60 " 40 short_side)
string(REPEAT "220 40 170 " 40 short_middle)
string(REPEAT "${short_ground}\n" 5 short_ground_rows)
string(REPEAT "${short_side}${short_middle}${short_side}\n" 10 short_subject_rows)
file(WRITE ${WORK}/short_scene.ppm
     "P3\n120 20\n255\n${short_ground_rows}${short_subject_rows}${short_ground_rows}")
expect_failure("cut-out of a short image" ${INPUT}
               "short_scene\\.ppm: too few rows for the tri-map job: the image is 20 rows high"
               cutout ${WORK}/short_scene.ppm --rect 10,1,100,18 -o ${WORK}/out.png
               --alpha ${WORK}/short_alpha.png)
if(EXISTS ${WORK}/short_alpha.png)
  message(FATAL_ERROR "the failed cut-out left its alpha behind")
endif()
message(STATUS "qxmatte failures ok")
