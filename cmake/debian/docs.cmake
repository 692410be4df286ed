# What every Debian package has besides what is installed: who may copy it, what changed, and manual pages compressed.
# Runs when the files of all components lie ready.
foreach(component ${CPACK_COMPONENTS_ALL})
  string(TOUPPER ${component} name)
  set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr/share)
  set(docs ${root}/doc/${CPACK_DEBIAN_${name}_PACKAGE_NAME})
  file(COPY ${CMAKE_CURRENT_LIST_DIR}/copyright ${CMAKE_CURRENT_LIST_DIR}/changelog DESTINATION ${docs}
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  file(GLOB pages ${root}/man/man*/*[0-9])
  execute_process(COMMAND gzip -9n ${docs}/changelog ${pages} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
