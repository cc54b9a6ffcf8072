# Build flags for a router's flash and memory. Included before any target.
#
# QDQUICK_SMALL: size over speed. -Os; every function and object in its own
#   section so that --gc-sections drops what nothing references; --as-needed
#   keeps NEEDED entries for libraries actually used. Unwind tables stay:
#   thread cancellation unwinds through the library's frames (cleanup
#   handlers, RAII destructors), and without .eh_frame that unwind would
#   abort the process.
# QDQUICK_STATIC_CXXRT: link libstdc++ into each library, for an image that
#   ships no libstdc++.so.6. --exclude-libs keeps the runtime's symbols out of
#   the dynamic symbol table. libgcc_s stays shared: glibc loads it for every
#   thread cancellation anyway.
option(QDQUICK_SMALL "Router build: -Os and unused sections dropped" OFF)
option(QDQUICK_STATIC_CXXRT "Link libstdc++ statically into each library" OFF)

if(QDQUICK_SMALL)
  if(NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
    set(CMAKE_BUILD_TYPE MinSizeRel)
  endif()
  add_compile_options(-Os -ffunction-sections -fdata-sections)
  add_link_options(LINKER:--gc-sections LINKER:--as-needed LINKER:-O1)
endif()

if(QDQUICK_STATIC_CXXRT)
  add_link_options(-static-libstdc++ LINKER:--exclude-libs,ALL)
endif()
