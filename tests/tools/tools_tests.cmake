velk2_test(issuing_test SOURCES private_key_test.cc issuer_test.cc LIBS velk2_issuing)
velk2_test(verdict_test SOURCES verdict_test.cc LIBS velk2_cli_core)
velk2_test(conventions_test SOURCES conventions_test.cc LIBS velk2_cli_core)
add_test(NAME cli_issue_keys_and_certificates
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_issue_test.sh $<TARGET_FILE:velk2_cli>)
add_test(NAME cli_fifo_never_blocks
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_fifo_test.sh $<TARGET_FILE:velk2_cli>)
add_test(NAME cli_revocation_lists_and_chains
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_revocation_test.sh $<TARGET_FILE:velk2_cli>)
add_test(NAME cli_manifests_sign_verify_compare
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_manifest_test.sh $<TARGET_FILE:velk2_cli>)
add_test(NAME cli_package_trust_revocation_and_rollback
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_package_trust_test.sh $<TARGET_FILE:velk2_cli>)
add_test(NAME cli_package_trees
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_package_tree_test.sh $<TARGET_FILE:velk2_cli>)
add_test(NAME cli_conventions
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_conventions_test.sh $<TARGET_FILE:velk2_cli>)
add_test(NAME cli_keys_passphrases_and_chain_order
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_keys_test.sh $<TARGET_FILE:velk2_cli>)
add_test(NAME cli_incremental_verification
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/cli_incremental_test.sh $<TARGET_FILE:velk2_cli>)
