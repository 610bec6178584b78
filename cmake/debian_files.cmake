# What only the .deb wants otherwise: programs find the libraries where the system looks, and there is a changelog in the
# form that Debian's tools read.
if(CPACK_GENERATOR STREQUAL DEB)
    file(RPATH_REMOVE FILE ${CPACK_TEMPORARY_DIRECTORY}/usr/bin/velmora)
    set(changelog ${CPACK_TEMPORARY_DIRECTORY}/usr/share/doc/velmora/changelog)
    string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
    file(WRITE ${changelog} "velmora (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium\n\n  * See CHANGELOG.md.\n\n"
        " -- ${CPACK_DEBIAN_PACKAGE_MAINTAINER}  ${date}\n")
    execute_process(COMMAND gzip -9n ${changelog} COMMAND_ERROR_IS_FATAL ANY)
endif()
