# Runs in CPack between installing into the staging folders and packing them: what Debian wants beside the files.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # that of SOURCE_DATE_EPOCH, where it is set

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component})
  set(doc ${root}/usr/share/doc/${package})
  file(WRITE ${doc}/changelog
       "${package} (${CPACK_PACKAGE_VERSION}) unstable; urgency=medium\n\n  * What changed is told in CHANGELOG.md.gz.\n\n"
       " -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
  file(COPY ${CPACK_TARN_SOURCE_DIR}/packaging/debian/copyright ${CPACK_TARN_SOURCE_DIR}/CHANGELOG.md DESTINATION ${doc})
  file(GLOB pages ${root}/usr/share/man/man*/*[0-9])
  foreach(file IN LISTS pages ITEMS ${doc}/changelog ${doc}/CHANGELOG.md)
    execute_process(COMMAND gzip -9nf ${file} COMMAND_ERROR_IS_FATAL ANY)
  endforeach()
  execute_process(COMMAND chmod -R u=rwX,go=rX ${root} COMMAND_ERROR_IS_FATAL ANY)  # whatever the umask of who packs
endforeach()
