# Installs a program; on Linux also its man page and its completion for bash, which lie beside its sources.
include(GNUInstallDirs)

function(install_tool name)
  if(NOT MARBLEWAY_INSTALL)
    return()
  endif()
  install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  if(WIN32)
    return()
  endif()
  execute_process(
    COMMAND gzip -9nc ${CMAKE_CURRENT_SOURCE_DIR}/${name}.1
    OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/${name}.1.gz)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.1.gz
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/${name}.bash RENAME ${name}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
endfunction()
