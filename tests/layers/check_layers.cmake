# Checks the layer order of the kltce tool's folders: a file under tools/kltce/<folder>/ includes
# headers of its own folder and of the folders before it in KLTCE_LAYERS, never of one after it; the
# engine (KLTContextEvaluator/, host/, platform/), testsupport/ and the files beside the folders
# (tools/kltce/*.cpp) include no tool header at all.
#   cmake -DROOT=<source tree> -P check_layers.cmake
# Prints every offending include as file:line and fails when there is one.
if(NOT DEFINED ROOT)
  message(FATAL_ERROR "usage: cmake -DROOT=<source tree> -P check_layers.cmake")
endif()

# From the bottom up; a folder may include its own headers and those of the folders before it.
set(KLTCE_LAYERS input replay analysis fleet report cli mpi)
# Folders below the tool, which include none of its headers.
set(KLTCE_BELOW_TOOL KLTContextEvaluator host platform testsupport)

set(offences "")
file(GLOB_RECURSE files RELATIVE ${ROOT} LIST_DIRECTORIES false
  ${ROOT}/tools/kltce/*.h ${ROOT}/tools/kltce/*.cpp ${ROOT}/tools/kltce/*.in)
foreach(below ${KLTCE_BELOW_TOOL})
  file(GLOB_RECURSE below_files RELATIVE ${ROOT} LIST_DIRECTORIES false ${ROOT}/${below}/*.h ${ROOT}/${below}/*.cpp)
  list(APPEND files ${below_files})
endforeach()

foreach(file ${files})
  # The rank of the file's own folder: -1 below the tool, the layer's index inside it.
  set(rank -1)
  if(file MATCHES "^tools/kltce/([^/]+)/")
    list(FIND KLTCE_LAYERS "${CMAKE_MATCH_1}" rank)
    if(rank EQUAL -1)
      list(APPEND offences "${file}: folder '${CMAKE_MATCH_1}' is not in the layer table")
      continue()
    endif()
  endif()  # a file beside the folders (the executables' support) is below the tool, as the engine
  file(STRINGS ${ROOT}/${file} lines)
  set(number 0)
  foreach(line IN LISTS lines)
    math(EXPR number "${number} + 1")
    if(NOT line MATCHES "^[ \t]*#[ \t]*include[ \t]*[\"<]tools/kltce/([^\">]*)[\">]")
      continue()
    endif()
    set(target "${CMAKE_MATCH_1}")
    if(NOT target MATCHES "^([^/]+)/")
      list(APPEND offences "${file}:${number}: tools/kltce/${target} is in no layer's folder")
      continue()
    endif()
    list(FIND KLTCE_LAYERS "${CMAKE_MATCH_1}" included)
    if(included EQUAL -1)
      list(APPEND offences "${file}:${number}: tools/kltce/${target}: folder '${CMAKE_MATCH_1}' is not in the layer table")
    elseif(rank EQUAL -1)
      list(APPEND offences "${file}:${number}: includes the tool's tools/kltce/${target}, above this folder")
    elseif(included GREATER rank)
      list(GET KLTCE_LAYERS ${rank} own)
      list(APPEND offences "${file}:${number}: ${own} includes tools/kltce/${target}, a layer above it")
    endif()
  endforeach()
endforeach()

if(offences)
  # One offence a line, unwrapped, so that each names its file:line whole.
  list(JOIN offences "\n" text)
  message("${text}")
  list(LENGTH offences count)
  message(FATAL_ERROR "layer order broken in ${count} includes (from the bottom: ${KLTCE_LAYERS})")
endif()
list(LENGTH files count)
message(STATUS "layer order kept in ${count} files")
