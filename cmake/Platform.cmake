# What only one system has lies in a folder of its name inside each folder of the platform (docs/porting.md); those of
# the system that is built for are compiled.
string(TOLOWER "${CMAKE_SYSTEM_NAME}" system)
set(TARVO_PLATFORM "${system}" CACHE STRING "The folders of the system that is built for")
set(TARVO_PLATFORM_SOURCES)
set(missing)
foreach(folder device foundation persistence urlsession)
  set(port ${CMAKE_CURRENT_LIST_DIR}/../src/platform/${folder}/${TARVO_PLATFORM})
  file(GLOB sources CONFIGURE_DEPENDS ${port}/*.cpp)
  list(APPEND TARVO_PLATFORM_SOURCES ${sources})
  if(NOT sources)
    string(APPEND missing "\n  src/platform/${folder}/${TARVO_PLATFORM}")
  endif()
endforeach()
if(missing)
  message(FATAL_ERROR "The port to ${TARVO_PLATFORM} lacks the sources of:${missing}\n"
    "docs/porting.md tells what one consists of, and where to begin.")
endif()
