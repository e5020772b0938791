# systemd units, example policy and rules, and the schemas. Nothing is enabled or started.

set(VOND_UNIT_DIR lib/systemd/system CACHE STRING
  "Where systemd units go, below the prefix unless it begins with a slash; empty for none")
if(VOND_UNIT_DIR)
  foreach(unit vond.socket vond@.service vondctl.service)
    configure_file(${PROJECT_SOURCE_DIR}/systemd/${unit}.in ${PROJECT_BINARY_DIR}/systemd/${unit} @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/systemd/${unit} DESTINATION ${VOND_UNIT_DIR})
  endforeach()
endif()

install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/vond/examples USE_SOURCE_PERMISSIONS)
install(FILES docs/schema/vondctl.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/vond)
foreach(schema korvo_common/proto/KorvoDaemon.proto static_pattern_matching/proto/StaticPatternMatching.proto
    yara/yara_lib/proto/YaraLib.proto)
  get_filename_component(folder ${schema} DIRECTORY)
  install(FILES ${schema} DESTINATION ${CMAKE_INSTALL_DATADIR}/vond/proto/${folder})
endforeach()
