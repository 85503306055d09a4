# velk2 acl add / acl list / authorize, exit codes, --explain and --json (parsed by python3).
add_test(NAME cli_authorize_acl_and_questions
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_authorize_test.sh $<TARGET_FILE:velk2_cli>)
