# Runs "velk2 show" on a good and on a bad canonical file and checks the
# output, the message and the exit status. Variables: VELK2 (the tool), WORK.
set(good "${WORK}/show_good.cert")
set(bad "${WORK}/show_bad.cert")
file(WRITE "${good}"
  "(4:cert(6:issuer(4:hash4:sha15:ab cd))(3:tag(3:pkg7:install))(7:comment[utf-8]2:hi))")
file(WRITE "${bad}" "(4:cert )")

execute_process(COMMAND "${VELK2}" show "${good}"
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
set(want "(cert\n  (issuer (hash sha1 \"ab cd\"))\n  (tag (pkg install))\n  (comment [utf-8]hi))\n")
if(NOT status EQUAL 0 OR NOT out STREQUAL want)
  message(FATAL_ERROR "show of a good file: status ${status}\n${out}\n${err}")
endif()

execute_process(COMMAND "${VELK2}" show "${bad}"
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status EQUAL 2 OR NOT out STREQUAL "" OR NOT err MATCHES "show_bad.cert: .+ \\(at byte 7\\)")
  message(FATAL_ERROR "show of a bad file: status ${status}\n${out}\n${err}")
endif()

execute_process(COMMAND "${VELK2}" show "${WORK}/no_such_file"
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status EQUAL 2 OR NOT err MATCHES "no_such_file: ")
  message(FATAL_ERROR "show of a missing file: status ${status}\n${err}")
endif()

execute_process(COMMAND "${VELK2}" show RESULT_VARIABLE status ERROR_VARIABLE err)
if(NOT status EQUAL 2 OR NOT err MATCHES "usage: velk2 show FILE")
  message(FATAL_ERROR "show without a file: status ${status}\n${err}")
endif()
