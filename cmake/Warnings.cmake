# Our own code builds with warnings as errors; third-party headers are included as SYSTEM.
add_library(quendral_warnings INTERFACE)
target_compile_options(quendral_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
  -Wcast-align -Woverloaded-virtual -Wformat=2 -Werror)
