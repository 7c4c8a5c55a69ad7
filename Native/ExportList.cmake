# Lets exactly the names of a checked-in list out of a library. The standard library's templates are
# declared visible and would leave it otherwise, and so would the private helpers of exported classes.
function(quorvalen_export_only target list)
  file(STRINGS ${list} names)
  list(JOIN names ";\n    " joined)
  set(map ${CMAKE_CURRENT_BINARY_DIR}/${target}.map)
  file(CONFIGURE OUTPUT ${map} CONTENT "{\n  global:\n    @joined@;\n  local: *;\n};\n" @ONLY)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${list})
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${map})
  target_link_options(${target} PRIVATE -Wl,--version-script=${map})
endfunction()
