# The bundled example that scripts/demo runs stays valid. The demo asks about
# now; these ask about a fixed day inside the example's period, so that they
# never depend on the day they run.
set(example ${PROJECT_SOURCE_DIR}/examples/authority)
velk2_cli_test(example_install EXIT 0 MATCH "authorized: yes"
  ARGS authorize --acl-dir ${example}/acl --certs ${example}/chain.cert --key ${example}/build.pub
       --tag "(pkg install)" --not-before 2027-06-01_00:00:00 --not-after 2027-06-01_00:00:00
       --explain)
velk2_cli_test(example_update EXIT 1 MATCH "result: 31"
  ARGS authorize --acl-dir ${example}/acl --certs ${example}/chain.cert --key ${example}/build.pub
       --tag "(pkg update)" --not-before 2027-06-01_00:00:00 --not-after 2027-06-01_00:00:00)
velk2_cli_test(example_vendor_in_period EXIT 0 MATCH "authorized: yes"
  ARGS authorize --acl-dir ${example}/acl --certs ${example}/chain.cert --key ${example}/vendor.pub
       --tag "(pkg update)" --not-before 2027-01-01_00:00:00 --not-after 2027-12-31_00:00:00)
velk2_cli_test(example_vendor_after_period EXIT 1 MATCH "result: 31"
  ARGS authorize --acl-dir ${example}/acl --certs ${example}/chain.cert --key ${example}/vendor.pub
       --tag "(pkg update)" --not-before 2037-01-01_00:00:00)
