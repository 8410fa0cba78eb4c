# Run by cpack on the staged files, before it packs them, so that they are as
# Debian packages carry them: manual pages compressed with gzip -9n (no name
# or time stamp inside, so that the same page always gives the same bytes),
# and static libraries without their debugging sections (35 MB down to a
# tenth), which a build type with -g would otherwise ship.
file(GLOB_RECURSE pages "${CPACK_TEMPORARY_DIRECTORY}/*.[1-9]")
list(FILTER pages INCLUDE REGEX "/share/man/man[1-9]/[^/]+$")
foreach(page IN LISTS pages)
  execute_process(COMMAND gzip -9nf "${page}" RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "gzip failed on ${page}")
  endif()
endforeach()

file(GLOB_RECURSE archives "${CPACK_TEMPORARY_DIRECTORY}/*.a")
foreach(archive IN LISTS archives)
  execute_process(COMMAND "${CPACK_KARU_STRIP}" --strip-debug "${archive}" RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "${CPACK_KARU_STRIP} failed on ${archive}")
  endif()
endforeach()
