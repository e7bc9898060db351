# What only the command line does: arguments, files, messages and exit codes, all-or-nothing
# writes. What the workflows compute is tested in tests/workflow through their C interface.
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

# Inputs: named in the message, exit 1, nothing written.
expect_failure("missing image" ${INPUT} "missing\\.png: no such file"
               trimap ${WORK}/missing.png ${WORK}/decided.pgm -o ${WORK}/out.png)
expect_failure("unreadable tri-map" ${INPUT} "broken\\.png: not a readable image"
               trimap ${WORK}/image.ppm ${WORK}/broken.png -o ${WORK}/out.png)
expect_failure("sizes differ" ${INPUT} "small\\.pgm: tri-map is 20x30, image is 40x30"
               trimap ${WORK}/image.ppm ${WORK}/small.pgm -o ${WORK}/out.png)
expect_failure("nothing undecided" ${INPUT} "decided\\.pgm: the tri-map has no undecided pixel"
               trimap ${WORK}/image.ppm ${WORK}/decided.pgm -o ${WORK}/out.png)
expect_failure("colour tri-map" ${INPUT} "image\\.ppm: tri-map is a colour image"
               trimap ${WORK}/image.ppm ${WORK}/image.ppm -o ${WORK}/out.png)
# Strokes: the wrong size, not grey, only one kind.
foreach(engine strokes kdtree pyramid)
  expect_failure("keep-cut sizes differ (${engine})" ${INPUT}
                 "small\\.pgm: stroke image is 20x30, image is 40x30"
                 keepcut ${WORK}/image.ppm ${WORK}/small.pgm -o ${WORK}/out.png --engine ${engine})
  expect_failure("colour strokes (${engine})" ${INPUT} "image\\.ppm: stroke image is a colour image"
                 keepcut ${WORK}/image.ppm ${WORK}/image.ppm -o ${WORK}/out.png --engine ${engine})
  expect_failure("keep strokes only (${engine})" ${INPUT} "image\\.ppm: too few strokes"
                 keepcut ${WORK}/image.ppm -o ${WORK}/out.png --keep 5,5,9,9,2 --engine ${engine})
  expect_failure("no strokes (${engine})" ${INPUT} "undecided\\.pgm: too few strokes"
                 keepcut ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png
                 --engine ${engine})
endforeach()

# Outputs are checked before any work, all of them.
expect_failure("unwritable output" ${OUTPUT} "nowhere/out\\.png: cannot write"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/nowhere/out.png)
expect_failure("unknown output format" ${OUTPUT} "out\\.xyz: cannot write the image \\(unknown extension\\)"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.xyz)
expect_failure("keep-cut cut-out folder missing" ${OUTPUT} "nowhere/cut\\.png: cannot write"
               keepcut ${WORK}/image.ppm ${WORK}/decided.pgm -o ${WORK}/out.png
               --cutout ${WORK}/nowhere/cut.png)
expect_failure("cut-out without alpha" ${OUTPUT} "cut\\.jpg: cannot write the image \\(the format keeps no alpha"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png
               --cutout ${WORK}/cut.jpg)
expect_failure("one path for two outputs" ${OUTPUT} "out\\.png: named for two outputs"
               keepcut ${WORK}/image.ppm ${WORK}/decided.pgm -o ${WORK}/out.png
               --foreground ${WORK}/out.png)
# No output may be an input, under any spelling: refused before any work, the input untouched.
file(SHA256 ${WORK}/image.ppm image_before)
file(SHA256 ${WORK}/undecided.pgm trimap_before)
file(MAKE_DIRECTORY ${WORK}/sub)
foreach(spelling "${WORK}/image.ppm" "${WORK}/./image.ppm" "${WORK}/sub/../image.ppm")
  expect_failure("output is the image (${spelling})" ${OUTPUT} "image\\.ppm: is an input"
                 trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${spelling})
endforeach()
expect_failure("foreground onto the alpha" ${OUTPUT} "undecided\\.pgm: is an input"
               foreground ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/undecided.pgm)
expect_failure("keep-cut cut-out onto the strokes" ${OUTPUT} "is an input"
               keepcut ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png
               --foreground ${WORK}/./undecided.pgm)
expect_failure("grabcut tri-map onto the strokes" ${OUTPUT} "is an input"
               grabcut ${WORK}/image.ppm --rect 0,0,10,10 --strokes ${WORK}/undecided.pgm
               -o ${WORK}/out.png --trimap ${WORK}/undecided.pgm)
expect_failure("refine onto the photo" ${OUTPUT} "is an input"
               refine ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png
               --alpha ${WORK}/image.ppm)
file(SHA256 ${WORK}/image.ppm image_after)
file(SHA256 ${WORK}/undecided.pgm trimap_after)
if(NOT image_before STREQUAL image_after OR NOT trimap_before STREQUAL trimap_after)
  message(FATAL_ERROR "a refused command changed its input")
endif()
# Only regular files are read: a pipe is refused at once rather than waited on.
execute_process(COMMAND mkfifo ${WORK}/pipe.png RESULT_VARIABLE fifo_rc)
if(fifo_rc EQUAL 0)
  expect_failure("a pipe as the photo" ${INPUT} "pipe\\.png: not a regular file"
                 trimap ${WORK}/pipe.png ${WORK}/undecided.pgm -o ${WORK}/out.png)
  file(REMOVE ${WORK}/pipe.png)
endif()
expect_failure("pixel limit option" ${USAGE} "--max-megapixels takes"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png
               --max-megapixels 0)

file(MAKE_DIRECTORY ${WORK}/blocked_demo/composite.png)
expect_failure("demo output blocked" ${OUTPUT} "composite\\.png: cannot write the image \\(it is a folder\\)"
               demo -o ${WORK}/blocked_demo --megapixels 0.02)
file(GLOB demo_left ${WORK}/blocked_demo/*)
if(NOT demo_left STREQUAL "${WORK}/blocked_demo/composite.png")
  message(FATAL_ERROR "demo output blocked: left ${demo_left}")
endif()

# The command line itself: usage errors exit 2 with one line; help and version on standard output.
expect_failure("no output named" ${USAGE} "trimap: needs IMAGE, TRIMAP and -o ALPHA \\(qxmatte trimap --help\\)"
               trimap ${WORK}/image.ppm ${WORK}/undecided.pgm)
expect_failure("unknown command" ${USAGE} "unknown command matte \\(qxmatte --help\\)"
               matte ${WORK}/image.ppm)
expect_failure("unknown engine" ${USAGE} "--engine takes strokes, kdtree or pyramid"
               keepcut ${WORK}/image.ppm ${WORK}/decided.pgm -o ${WORK}/out.png --engine fast)
expect_failure("bad vector stroke" ${USAGE} "--keep takes X0,Y0,X1,Y1,R"
               keepcut ${WORK}/image.ppm -o ${WORK}/out.png --keep 1,2,3)
expect_failure("unknown foreground method" ${USAGE} "--method takes full, least-squares or sampling"
               foreground ${WORK}/image.ppm ${WORK}/undecided.pgm -o ${WORK}/out.png --method x)
expect_failure("grabcut rectangle outside" ${USAGE} "--rect 0,0,41,30 is not inside the 40x30 image"
               grabcut ${WORK}/image.ppm --rect 0,0,41,30 -o ${WORK}/out.png)
expect_failure("grabcut rectangle text" ${USAGE} "--rect takes X,Y,W,H"
               grabcut ${WORK}/image.ppm --rect 5,5,0,9 -o ${WORK}/out.png)
expect_failure("cutout band" ${USAGE} "--band takes 1 to 32767"
               cutout ${WORK}/image.ppm --rect 0,0,10,10 --band 0 -o ${WORK}/out.png)
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

# Runs a command that must work and write the named files.
function(expect_success what)
  cmake_parse_arguments(E "" "" "FILES;ARGS" ${ARGN})
  execute_process(COMMAND ${QXMATTE} ${E_ARGS} -q RESULT_VARIABLE rc ERROR_VARIABLE err
                  OUTPUT_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what}: exit ${rc} ('${err}')")
  endif()
  foreach(f ${E_FILES})
    if(NOT EXISTS ${f})
      message(FATAL_ERROR "${what}: ${f} not written")
    endif()
  endforeach()
  set(out "${out}" PARENT_SCOPE)
endfunction()

# The demo writes its scene and results; the commands on its files give the same bytes, so the
# demo runs the same calls as the commands (default engine included).
expect_success("demo" FILES ${WORK}/demo/alpha.png ${WORK}/demo/keepcut_alpha.png
               ARGS demo -o ${WORK}/demo --megapixels 0.1)
if(NOT out MATCHES "keep-cut accuracy over the unpainted pixels: SAD [0-9.]+")
  message(FATAL_ERROR "demo report: '${out}'")
endif()
expect_success("trimap" FILES ${WORK}/alpha.png ${WORK}/cutout.png
               ARGS trimap ${WORK}/demo/image.png ${WORK}/demo/trimap.png -o ${WORK}/alpha.png
               --cutout ${WORK}/cutout.png)
expect_success("keepcut" FILES ${WORK}/kc.png ${WORK}/kc_fg.png ${WORK}/kc_cut.png
               ARGS keepcut ${WORK}/demo/image.png ${WORK}/demo/strokes.png -o ${WORK}/kc.png
               --foreground ${WORK}/kc_fg.png --cutout ${WORK}/kc_cut.png)
foreach(pair "alpha.png;demo/alpha.png" "kc.png;demo/keepcut_alpha.png"
             "kc_fg.png;demo/keepcut_foreground.png")
  list(GET pair 0 a)
  list(GET pair 1 b)
  file(SHA256 ${WORK}/${a} got)
  file(SHA256 ${WORK}/${b} want)
  if(NOT got STREQUAL want)
    message(FATAL_ERROR "${a} differs from the demo's ${b}")
  endif()
endforeach()
# --pyramid is the pyramid engine; each engine gives its own alpha.
expect_success("pyramid" FILES ${WORK}/p1.png ARGS keepcut ${WORK}/demo/image.png
               ${WORK}/demo/strokes.png -o ${WORK}/p1.png --pyramid)
expect_success("engine pyramid" FILES ${WORK}/p2.png ARGS keepcut ${WORK}/demo/image.png
               ${WORK}/demo/strokes.png -o ${WORK}/p2.png --engine pyramid)
expect_success("engine kdtree" FILES ${WORK}/k.png ARGS keepcut ${WORK}/demo/image.png
               ${WORK}/demo/strokes.png -o ${WORK}/k.png --engine kdtree)
file(SHA256 ${WORK}/p1.png p1)
file(SHA256 ${WORK}/p2.png p2)
file(SHA256 ${WORK}/k.png k)
if(NOT p1 STREQUAL p2 OR p1 STREQUAL k)
  message(FATAL_ERROR "--pyramid and --engine pyramid differ, or kdtree equals pyramid")
endif()
# Strokes painted everywhere: the alpha is the strokes as painted.
expect_success("painted everywhere" FILES ${WORK}/all.png
               ARGS keepcut ${WORK}/image.ppm ${WORK}/decided.pgm -o ${WORK}/all.png)
expect_success("grabcut" FILES ${WORK}/sel.png ${WORK}/tri.png
               ARGS grabcut ${WORK}/demo/image.png --rect 5,5,300,250 -o ${WORK}/sel.png
               --trimap ${WORK}/tri.png)
expect_success("cutout" FILES ${WORK}/cut.png ${WORK}/cut_alpha.png
               ARGS cutout ${WORK}/demo/image.png --rect 5,5,300,250 -o ${WORK}/cut.png
               --alpha ${WORK}/cut_alpha.png)
expect_success("foreground sampling" FILES ${WORK}/fgs.png
               ARGS foreground ${WORK}/demo/image.png ${WORK}/demo/alpha.png -o ${WORK}/fgs.png
               --method sampling)

# Batch: the output folder under the single commands' rules, every photo format the commands
# read, skipped photos named, a --only that matches nothing is a failure.
file(MAKE_DIRECTORY ${WORK}/batch_in ${WORK}/batch_out)
expect_success("a WebP photo" FILES ${WORK}/batch_in/w.webp
               ARGS foreground ${WORK}/demo/image.png ${WORK}/demo/alpha.png
               -o ${WORK}/batch_in/w.webp --method sampling)
file(COPY_FILE ${WORK}/demo/trimap.png ${WORK}/batch_in/w.trimap.png)
file(COPY_FILE ${WORK}/demo/image.png ${WORK}/batch_in/alone.png)
file(GLOB batch_inputs ${WORK}/batch_in/*)
expect_failure("batch into its own folder" ${OUTPUT} "is the input folder"
               batch ${WORK}/batch_in -o ${WORK}/batch_in/.)
expect_failure("batch into a missing folder" ${OUTPUT} "batch_nowhere: no such folder"
               batch ${WORK}/batch_in -o ${WORK}/batch_nowhere)
expect_failure("batch --only matching nothing" ${INPUT} "--only zz: no photo zz"
               batch ${WORK}/batch_in -o ${WORK}/batch_out --only zz)
expect_failure("batch --only a photo without a partner" ${INPUT} "alone\\.png: skipped, no partner"
               batch ${WORK}/batch_in -o ${WORK}/batch_out --only alone)
file(GLOB batch_after ${WORK}/batch_in/*)
if(NOT batch_after STREQUAL batch_inputs OR EXISTS ${WORK}/batch_nowhere)
  message(FATAL_ERROR "a refused batch changed the folders: ${batch_after}")
endif()
expect_success("batch" FILES ${WORK}/batch_out/w.png
               ARGS batch ${WORK}/batch_in -o ${WORK}/batch_out)
if(NOT out MATCHES "^batch: 1 written, 0 up to date, 0 failed, 1 without a partner\n"
   OR NOT out MATCHES "\n  alone\\.png: skipped, no partner alone\\.mask\\.png")
  message(FATAL_ERROR "batch report: '${out}'")
endif()
