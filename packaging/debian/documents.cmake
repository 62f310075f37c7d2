# The documents that a Debian package must have. The date of its version is that of the file with the news, or
# SOURCE_DATE_EPOCH, so that the same source makes the same package.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  set(clock $ENV{SOURCE_DATE_EPOCH})
else()
  file(TIMESTAMP "${news}" clock "%s" UTC)
endif()
execute_process(COMMAND date -u -R -d "@${clock}" OUTPUT_VARIABLE date OUTPUT_STRIP_TRAILING_WHITESPACE
  COMMAND_ERROR_IS_FATAL ANY)
file(WRITE "${made}/changelog" "tavrel (${version}) unstable; urgency=medium

  * What is new is in NEWS.md.

 -- Tavrel Composer developers <composer@tavrel.invalid>  ${date}
")
configure_file("${news}" "${made}/NEWS.md" COPYONLY)
foreach(file changelog NEWS.md)
  execute_process(COMMAND gzip -9nf "${made}/${file}" COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(INSTALL "${made}/changelog.gz" "${made}/NEWS.md.gz" "${debian}/copyright"
  DESTINATION "${CMAKE_INSTALL_PREFIX}/${docs}")
