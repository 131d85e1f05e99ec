# Warnings are errors in the project's own code; third-party headers come in
# as system headers and third-party sources are compiled without these flags.
function(ziputil_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
