# qlmr_strict(<target>): the warning set that all of the project's own code builds with.
# Third-party and platform headers come in as SYSTEM includes, so they do not trip it.
function(qlmr_strict target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror)
endfunction()
