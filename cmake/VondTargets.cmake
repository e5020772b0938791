# What every target of this project shares.

# Warnings for our own code; generated code does not link this.
add_library(vond_warnings INTERFACE)
target_compile_options(vond_warnings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  $<$<BOOL:${VOND_WERROR}>:-Werror>)

# Everything that must agree across all objects of one build.
add_library(vond_options INTERFACE)
target_include_directories(vond_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/proto)
target_compile_options(vond_options INTERFACE -fstack-protector-strong)
if(VOND_SANITIZE)
  target_compile_options(vond_options INTERFACE -fsanitize=${VOND_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  target_link_options(vond_options INTERFACE -fsanitize=${VOND_SANITIZE})
  if(VOND_SANITIZE MATCHES "undefined")
    # Its check of an object's dynamic type opens a pipe for a moment, on any thread and inherited by every program that
    # starts meanwhile: tests that compare descriptors would see it.
    target_compile_options(vond_options INTERFACE -fno-sanitize=vptr)
  endif()
  target_compile_definitions(vond_options INTERFACE VOND_SANITIZED=1)
else()
  target_compile_definitions(vond_options INTERFACE $<$<CONFIG:Release,RelWithDebInfo>:_FORTIFY_SOURCE=2>)
endif()

# vond_add_library(<name> SOURCES ... [PUBLIC ...] [PRIVATE ...]): library vond_<name>, alias vond::<name>.
function(vond_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(vond_${name} STATIC ${ARG_SOURCES})
  add_library(vond::${name} ALIAS vond_${name})
  target_link_libraries(vond_${name} PUBLIC vond_options ${ARG_PUBLIC} PRIVATE vond_warnings ${ARG_PRIVATE})
endfunction()

# vond_add_proto(<name> <file.proto> ...  [DEPENDS ...]): library vond::<name> of the generated code. Paths are from the
# top of the tree, which is also how the schemas import each other.
function(vond_add_proto name)
  cmake_parse_arguments(ARG "" "" "DEPENDS" ${ARGN})
  set(generated "")
  foreach(proto IN LISTS ARG_UNPARSED_ARGUMENTS)
    string(REGEX REPLACE "\\.proto$" "" stem ${proto})
    set(outputs ${PROJECT_BINARY_DIR}/proto/${stem}.pb.cc ${PROJECT_BINARY_DIR}/proto/${stem}.pb.h)
    add_custom_command(
      OUTPUT ${outputs}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/proto
      COMMAND protobuf::protoc --proto_path=${PROJECT_SOURCE_DIR} --cpp_out=${PROJECT_BINARY_DIR}/proto
              ${PROJECT_SOURCE_DIR}/${proto}
      DEPENDS ${PROJECT_SOURCE_DIR}/${proto}
      COMMENT "Generating code for ${proto}"
      VERBATIM)
    list(APPEND generated ${outputs})
  endforeach()
  add_library(vond_${name} STATIC ${generated})
  add_library(vond::${name} ALIAS vond_${name})
  target_link_libraries(vond_${name} PUBLIC vond_options protobuf::libprotobuf ${ARG_DEPENDS})
endfunction()
