# velk2 tag compare / intersect, and command families.
velk2_cli_test(tag_family_help EXIT 0 MATCH "usage: velk2 tag compare" ARGS tag --help)
velk2_cli_test(tag_family_bare EXIT 2 MATCH "usage: velk2 tag intersect" ARGS tag)
velk2_cli_test(tag_equal EXIT 0 MATCH "^equal$" ARGS tag compare "(ftp host)" "(ftp host)")
velk2_cli_test(tag_narrower EXIT 0 MATCH "^narrower$" ARGS tag compare "(ftp host read)" "(ftp host)")
velk2_cli_test(tag_broader EXIT 0 MATCH "^broader$" ARGS tag compare "(* set read write)" "read")
velk2_cli_test(tag_disjoint EXIT 0 MATCH "^disjoint$" ARGS tag compare "(ftp)" "(http)")
# One reader for every tag text: what only looks canonical is read as text.
velk2_cli_test(tag_canonical_is_text EXIT 0 MATCH "^disjoint$"
  ARGS tag compare "(3:ftp4:host)" "(ftp host)")
velk2_cli_test(tag_intersect_set EXIT 0 MATCH "read"
  ARGS tag intersect "(ftp (* set read write))" "(ftp (* set read delete))")
velk2_cli_test(tag_intersect_prefix EXIT 0 MATCH "/pub/src/"
  ARGS tag intersect "(ftp (* prefix /pub/))" "(ftp /pub/src/a)")
velk2_cli_test(tag_intersect_empty EXIT 1 MATCH "" ARGS tag intersect "(ftp)" "(http)")
velk2_cli_test(tag_unreadable EXIT 2 MATCH "" ARGS tag compare "(ftp" "(ftp)")
velk2_cli_test(tag_missing_operand EXIT 2 MATCH "" ARGS tag compare "(ftp)")
