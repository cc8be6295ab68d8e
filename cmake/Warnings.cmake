add_library(tarvo_options INTERFACE)
target_compile_options(tarvo_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual -Wcast-align
  $<$<BOOL:${TARVO_WERROR}>:-Werror>
  # Default arguments and member initialisers that are left out on purpose are not a fault.
  -Wno-missing-field-initializers
  # g++ 12 sees an overlap in std::string::replace that is none (GCC bug 105651), and takes the other members of a
  # std::variant that is moved for uninitialised ones. Clang and the sanitizers look for real ones.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict> $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
if(TARVO_FAULT_POINTS)
  target_compile_definitions(tarvo_options INTERFACE TARVO_FAULT_POINTS)
endif()
if(TARVO_SANITIZE)
  target_compile_options(tarvo_options INTERFACE -fsanitize=${TARVO_SANITIZE} -fno-omit-frame-pointer
    # g++ has no model of fences under ThreadSanitizer.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
  if(TARVO_SANITIZE MATCHES "undefined")
    target_compile_options(tarvo_options INTERFACE -fno-sanitize-recover=all)
  endif()
  target_link_options(tarvo_options INTERFACE -fsanitize=${TARVO_SANITIZE})
endif()
