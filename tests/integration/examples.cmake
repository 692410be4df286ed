#Runs the examples in the folder EXAMPLES on the demonstration, and looks at what they print and save in PICTURES.
set(ENV{CAPTURE_RIG} demo)

# `size`: of the saved picture, header included; `pixel`: three of its bytes at `offset`, \
                                                 in the yellow bar or on the seam.
    function(run_example printed name size offset pixel) set(picture ${PICTURES} / ${name})
        execute_process(COMMAND ${EXAMPLES} /
                        ${ARGN} ${picture} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY) if (NOT output MATCHES
                                                                                                  "${printed}")
            message(FATAL_ERROR "${ARGN} prints:\n${output}") endif() file(SIZE ${picture} found) file(READ ${
                picture} bytes OFFSET ${offset} LIMIT 3 HEX) if (NOT found EQUAL size OR NOT bytes STREQUAL pixel)
                message(FATAL_ERROR "${picture}: ${found} bytes, a pixel ${bytes}") endif() endfunction()

                    run_example("1  Desk Camera Video\n.*5  Studio Microphone Audio\nHD Webcam Video: " picture
                                    .ppm 6220817 1153157 bfbf00 list_and_save 0)
                        run_example("HD Webcam Video is [-+][0-9.]+ ms from Desk Camera Video\n$" pictures
                                        .pgm 3456017 641935 0000be two_cameras
                                    "HD Webcam Video"
                                    "Desk Camera Video")
