# Run by CPack on the package's staging folder, after the install rules and before the
# archive is made: Debian wants manual pages compressed and every package to carry its
# copyright notice and its changelog under /usr/share/doc/<package>. gzip -n leaves the
# time stamp out, so that two builds of one source give the same package.
set(stage "${CPACK_TEMPORARY_DIRECTORY}${CPACK_PACKAGING_INSTALL_PREFIX}")
if(NOT IS_DIRECTORY "${stage}/bin")
  message(FATAL_ERROR "No installed programs under ${stage}")
endif()

function(gzip_in_place file)
  execute_process(COMMAND gzip -9nf "${file}" RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "gzip failed on ${file}")
  endif()
endfunction()

file(GLOB_RECURSE manual_pages "${stage}/share/man/*.[1-9]")
foreach(page IN LISTS manual_pages)
  gzip_in_place("${page}")
endforeach()

set(doc "${stage}/share/doc/${CPACK_PACKAGE_NAME}")
file(MAKE_DIRECTORY "${doc}")
string(TIMESTAMP year "%Y" UTC)
file(WRITE "${doc}/copyright"
"${CPACK_PACKAGE_NAME}

Copyright ${year} ${CPACK_PACKAGE_CONTACT}

Built from the Tremora source tree, whose authors hold its copyright. The
source tree states no licence; ask the maintainers at the address above.
")
# A native package (no Debian revision in its version) names its changelog changelog.gz.
string(TIMESTAMP changelog_date "${CPACK_TREMORA_CHANGELOG_DATE_FORMAT}" UTC)
file(WRITE "${doc}/changelog"
"${CPACK_PACKAGE_NAME} (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium

  * Tremora ${CPACK_PACKAGE_VERSION}, packaged from its CMake build.

 -- ${CPACK_PACKAGE_CONTACT}  ${changelog_date}
")
gzip_in_place("${doc}/changelog")
file(CHMOD "${doc}/copyright" "${doc}/changelog.gz" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
