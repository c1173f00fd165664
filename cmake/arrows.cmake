# Which folder of Velum/ may include which: the architecture in one table. A folder's line also holds
# for the folders below it that have none of their own; what includes itself is not listed, and no
# line may lead back to its beginning. A source with another arrow stops the configuration.
set(arrows
  "Base ->"
  "Files -> Base"
  "PropertyList -> Base"
  "Json -> Base"
  "Sealing -> Base"
  "HTTP -> Base Files"
  "Platform -> Base Files PropertyList HTTP"
  "Concurrency -> Base Platform"
  "Logger -> Base Files Platform Concurrency"
  "Vault -> Base Files Sealing Platform"
  # Below the seam: who implements it may log, and use what stands under the seam.
  "Platform/Linux/Dispatch -> Base Files Platform Concurrency"
  "Platform/Linux/Files -> Base Files PropertyList Platform Concurrency Logger"
  "Platform/Linux/Logging -> Base Files Platform Concurrency Logger"
  "Platform/Linux/Processes -> Base Files Platform Platform/Linux/Files"
  "Platform/Linux/Machine -> Base Files Platform Platform/Linux/Files"
  "Platform/Linux/Notify -> Base Files Platform Concurrency Logger Platform/Linux/Files"
  "Platform/Linux/Secrets -> Base Files Platform Logger Vault Platform/Linux/Files Platform/Linux/Processes"
  "Platform/Linux/CodeIdentity -> Base Files Platform Concurrency"
  "Platform/Linux/Certificates -> Base Files PropertyList Platform Concurrency Logger Platform/Linux/Files"
  "Platform/Linux/Windows -> Base Files Platform Concurrency Logger Platform/Linux/Files Platform/Linux/Processes"
  "Platform/Linux/Workspace -> Base Files PropertyList Platform Logger Platform/Linux/Dispatch Platform/Linux/Files Platform/Linux/Processes"
  "Platform/Curl -> Base HTTP Platform Concurrency Platform/Linux/Dispatch"
  # The services stand loose in Velum/. They know a system only through the seam.
  ". -> Base Files PropertyList Json Sealing HTTP Platform Concurrency Logger")

# Sets `result` to the folder of the table that the file at `path`, relative to Velum/, belongs to.
function(velum_room path result)
  cmake_path(GET path PARENT_PATH folder)
  while(NOT folder STREQUAL "" AND NOT DEFINED arrows_of_${folder})
    cmake_path(GET folder PARENT_PATH folder)
  endwhile()
  if(folder STREQUAL "")
    set(folder ".")
  endif()
  set(${result} ${folder} PARENT_SCOPE)
endfunction()

function(velum_check_arrows)
  set(known "")
  foreach(line IN LISTS arrows)
    string(REGEX MATCH "^([^ ]+) ->(.*)$" line "${line}")
    set(from ${CMAKE_MATCH_1})
    separate_arguments(to UNIX_COMMAND "${CMAKE_MATCH_2}")
    # From top to bottom, so that there is no way back.
    foreach(room IN LISTS to)
      if(NOT room IN_LIST known)
        message(FATAL_ERROR "cmake/arrows.cmake: ${from} -> ${room}, which has no line above it")
      endif()
    endforeach()
    list(APPEND known ${from})
    set(arrows_of_${from} ${from} ${to})
  endforeach()

  set(root ${PROJECT_SOURCE_DIR}/Velum)
  file(GLOB_RECURSE sources RELATIVE ${root} ${root}/*.h ${root}/*.cpp)
  foreach(source IN LISTS sources)
    velum_room(${source} from)
    file(STRINGS ${root}/${source} includes REGEX "^#include \"Velum/")
    foreach(include IN LISTS includes)
      string(REGEX REPLACE "^#include \"Velum/([^\"]+)\".*" "\\1" header "${include}")
      velum_room(${header} to)
      if(NOT to IN_LIST arrows_of_${from})
        message(SEND_ERROR "Velum/${source} includes Velum/${header}: "
          "cmake/arrows.cmake has no arrow ${from} -> ${to}")
      endif()
    endforeach()
  endforeach()
endfunction()

velum_check_arrows()
