# SPDX-License-Identifier: MIT
# Run by CPack before it makes the packages: adds the licence and the list of changes that each Debian
# package has.
file(READ "${CPACK_YUTILS_SOURCE}/LICENSE" license)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
foreach(group lib dev gdb)
  string(TOUPPER "${group}" upper)
  set(package "${CPACK_DEBIAN_${upper}_PACKAGE_NAME}")
  set(folder "${CPACK_TEMPORARY_DIRECTORY}/${group}${CPACK_PACKAGING_INSTALL_PREFIX}/share/doc/${package}")
  file(WRITE "${folder}/copyright" "${license}")
  file(WRITE "${folder}/changelog"
    "yutils (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium\n\n"
    "  * See CHANGELOG.md in /usr/share/doc/yutils of libyutils-dev.\n\n"
    " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  execute_process(COMMAND gzip -9nf "${folder}/changelog" COMMAND_ERROR_IS_FATAL ANY)
  file(CHMOD_RECURSE "${folder}" FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
    DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
