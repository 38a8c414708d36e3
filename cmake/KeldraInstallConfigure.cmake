# keldra_install_configured(<template> DESTINATION <dir> COMPONENT <component>
#                           [RENAME <name>])
#
# Installs a file made from <template> with configure_file(@ONLY) at install
# time rather than at configure time, so that the paths written into it follow
# the prefix actually used by `cmake --install --prefix`, DESTDIR staging or
# CPack, not only the CMAKE_INSTALL_PREFIX of the configure step. The template
# can use:
#
#   @KELDRA_PREFIX@        the install prefix
#   @KELDRA_FULL_SBINDIR@  absolute sbin directory (the supervisor's)
#   @KELDRA_FULL_LIBDIR@   absolute library directory
#   @KELDRA_FULL_INCLUDEDIR@ absolute header directory
#   @KELDRA_PC_LIBDIR@     library directory for a pkg-config file, written
#                          as ${prefix}/... when it lies under the prefix
#   @KELDRA_PC_INCLUDEDIR@ the same for the header directory
#   @KELDRA_PC_VERSION@    value of the variable KELDRA_PC_VERSION when this
#                          function was called (empty when unset)
#   @PROJECT_VERSION@      the project's version
#
# The file is written under ${CMAKE_CURRENT_BINARY_DIR}/install-time/ and then
# installed with install(FILES) (mode 0644).
function(keldra_install_configured template)
  cmake_parse_arguments(arg "" "DESTINATION;COMPONENT;RENAME" "" ${ARGN})
  if(NOT arg_DESTINATION OR NOT arg_COMPONENT)
    message(FATAL_ERROR "keldra_install_configured: DESTINATION and COMPONENT are required")
  endif()
  get_filename_component(template "${template}" ABSOLUTE)
  if(arg_RENAME)
    set(name "${arg_RENAME}")
  else()
    get_filename_component(name "${template}" NAME)
    string(REGEX REPLACE "\\.in$" "" name "${name}")
  endif()
  set(output "${CMAKE_CURRENT_BINARY_DIR}/install-time/${arg_COMPONENT}/${name}")
  install(CODE "
    set(KELDRA_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    set(KELDRA_PC_VERSION \"${KELDRA_PC_VERSION}\")
    set(PROJECT_VERSION \"${PROJECT_VERSION}\")
    foreach(pair \"SBINDIR=${CMAKE_INSTALL_SBINDIR}\" \"LIBDIR=${CMAKE_INSTALL_LIBDIR}\"
                 \"INCLUDEDIR=${CMAKE_INSTALL_INCLUDEDIR}\")
      string(REGEX MATCH \"^[A-Z]+\" kind \"\${pair}\")
      string(REGEX REPLACE \"^[A-Z]+=\" \"\" dir \"\${pair}\")
      if(IS_ABSOLUTE \"\${dir}\")
        set(KELDRA_FULL_\${kind} \"\${dir}\")
        set(KELDRA_PC_\${kind} \"\${dir}\")
      else()
        set(KELDRA_FULL_\${kind} \"\${KELDRA_PREFIX}/\${dir}\")
        set(KELDRA_PC_\${kind} \"\\\${prefix}/\${dir}\")
      endif()
    endforeach()
    configure_file(\"${template}\" \"${output}\" @ONLY)
  " COMPONENT ${arg_COMPONENT})
  install(FILES "${output}" DESTINATION "${arg_DESTINATION}" COMPONENT ${arg_COMPONENT}
          PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endfunction()
