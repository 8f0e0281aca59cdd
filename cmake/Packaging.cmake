# `cpack -G DEB` in the build folder: one Debian package, tremora_<version>_<arch>.deb, of
# everything `cmake --install` puts under /usr. Its dependencies are read from the
# executables by dpkg-shlibdeps, so they follow whatever the build links. What Debian asks
# of a package beyond the install rules (compressed manual pages, the copyright and
# changelog files) is added to the package's staging folder only, by PackageStaging.cmake,
# and so never changes what `cmake --install` writes.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tremora)
set(CPACK_PACKAGE_VENDOR "Tremora maintainers")
set(CPACK_PACKAGE_CONTACT "Tremora maintainers <maintainers@users.noreply.c-seed-fda4c1ad.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_SOURCE_IGNORE_FILES "/build.*/" "/\\\\.git/")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Legends and report cards draw their text with the fonts fontconfig finds.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS fonts-dejavu-core)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "maps of where motion happened in recorded video")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Tremora decodes each video once, counts for every pixel how many separate
times motion was seen there, learns a background picture of the scene and
renders one still map: blue (rare) to red (frequent) over a darkened grey
copy of the background. Hours of camera footage can be read at a glance.
.
The package holds the window application (tremora) and the headless tool
(tremora-map), which writes the same maps, exact per-pixel event counts,
activity tables, JSON manifests, maps per slice of time, combined maps of
many videos and an HTML report, without a display.")

set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/PackageStaging.cmake)
set(CPACK_TREMORA_CHANGELOG_DATE_FORMAT "%a, %d %b %Y %H:%M:%S +0000")

include(CPack)
