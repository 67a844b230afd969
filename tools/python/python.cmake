# The Python the module is built and tested for. Debian's own interpreter
# comes first when it exists: numpy and pytest are Debian packages, and an
# interpreter earlier on PATH (a user's own build) would not see them.
if(NOT DEFINED Python3_EXECUTABLE AND EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Python interpreter of the weftmap module")
endif()
find_package(Python3 3.9 REQUIRED COMPONENTS Interpreter Development.Module)
