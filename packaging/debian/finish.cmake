# Run by CPack between the installation into its own folder and the package: what Debian's policy asks
# of a package, and one time for all files, so that the same sources give the same bytes.
set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY}${CPACK_PACKAGING_INSTALL_PREFIX})
set(docs ${root}/share/doc/qz640emu)

function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# The licence's place is a file of its own name.
file(REMOVE ${docs}/LICENSE)
configure_file(${CMAKE_CURRENT_LIST_DIR}/copyright ${docs}/copyright COPYONLY)
file(RENAME ${docs}/CHANGELOG.md ${docs}/changelog)
string(TIMESTAMP QZ_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in ${docs}/changelog.Debian @ONLY)
file(GLOB compressed ${root}/share/man/man?/*.? ${docs}/changelog ${docs}/changelog.Debian)
run(gzip -9nf ${compressed})

file(GLOB scripts ${docs}/examples/*.py)
run(chmod 644 ${scripts})
run(chmod -R u=rwX,go=rX ${CPACK_TEMPORARY_INSTALL_DIRECTORY})
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  run(find ${CPACK_TEMPORARY_INSTALL_DIRECTORY} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} +)
endif()
