# The agent library as others use it: headers, one static library of ours in all, a CMake package and a pkg-config file.

# agent and what it stands on in one archive, so that users name one library and in no order.
add_library(vond_agent_archive STATIC
  $<TARGET_OBJECTS:vond_agent>
  $<TARGET_OBJECTS:vond_utils>
  $<TARGET_OBJECTS:vond_korvo_common_proto>
  $<TARGET_OBJECTS:vond_relay_proto>
  $<TARGET_OBJECTS:vond_static_pattern_matching_proto>
  $<TARGET_OBJECTS:vond_yara_lib_proto>)
set_target_properties(vond_agent_archive PROPERTIES OUTPUT_NAME vond-agent EXPORT_NAME agent LINKER_LANGUAGE CXX)
target_include_directories(vond_agent_archive INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/vond>)
target_compile_features(vond_agent_archive INTERFACE cxx_std_20)
target_link_libraries(vond_agent_archive INTERFACE protobuf::libprotobuf Poco::Crypto Poco::Foundation Threads::Threads)

install(TARGETS vond_agent_archive EXPORT VondAgentTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  COMPONENT development)

# The headers of agent/ and all that they include of this tree.
file(GLOB headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/agent/*.h)
list(APPEND headers utils/managed_fd.h utils/mutex.h)
foreach(header IN LISTS headers)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vond/${folder} COMPONENT development)
endforeach()
install(DIRECTORY ${PROJECT_BINARY_DIR}/proto/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vond COMPONENT development
  FILES_MATCHING PATTERN "KorvoDaemon.pb.h" PATTERN "Relay.pb.h" PATTERN "StaticPatternMatching.pb.h" PATTERN "YaraLib.pb.h")

include(CMakePackageConfigHelpers)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/VondAgent)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VondAgentConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VondAgentConfig.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VondAgentConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VondAgentConfig.cmake ${PROJECT_BINARY_DIR}/VondAgentConfigVersion.cmake
  DESTINATION ${package_folder} COMPONENT development)
install(EXPORT VondAgentTargets NAMESPACE vond:: DESTINATION ${package_folder} COMPONENT development)

# Its prefix is found from the file's own place: the folder can be moved.
file(RELATIVE_PATH prefix_from_pcfiledir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pcfiledir ${prefix_from_pcfiledir})
configure_file(${PROJECT_SOURCE_DIR}/cmake/vond-agent.pc.in ${PROJECT_BINARY_DIR}/vond-agent.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vond-agent.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
