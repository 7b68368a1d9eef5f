# Sourced by the scripts that run the sanitizer build's tests. A sanitizer
# report in the daemon or a tool started by a test changes its exit status to
# this value, which no test expects.
export ASAN_OPTIONS="detect_leaks=1:exitcode=86:abort_on_error=0:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1:exitcode=86"
export LSAN_OPTIONS="exitcode=86"
