# The window sees the core only through the shell (shell/window.h): a source
# here that includes a lower layer's header directly fails the build.
file(GLOB sources ${GUI_DIR}/*.cpp ${GUI_DIR}/*.h)
foreach(f ${sources})
  file(STRINGS ${f} below REGEX "^#include \"(foundation|database|protocol|printers|service|label)/")
  if(below)
    message(FATAL_ERROR "${f}: the window includes only gui/ and shell/ headers, not: ${below}")
  endif()
endforeach()
file(TOUCH ${STAMP})
