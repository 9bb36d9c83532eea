# The gNMI front of octunnel serve (gnmi/): built beside the NETCONF one
# when gRPC and protobuf are at hand.  The stubs of the vendored protos
# (third_party/gnmi, laid out so that gnmi.proto's import of gnmi_ext.proto
# resolves as it is written) are generated in the build and compiled once
# into a small static library of their own.
set(OCTUNNEL_GNMI AUTO CACHE STRING
    "Build the gNMI front of octunnel serve (needs gRPC++ and protobuf with their compilers): ON, OFF or AUTO")
set(build_gnmi OFF)
if(NOT OCTUNNEL_GNMI STREQUAL "OFF")
  pkg_check_modules(GRPCPP IMPORTED_TARGET grpc++)
  pkg_check_modules(PROTOBUF IMPORTED_TARGET protobuf)
  find_program(PROTOC protoc)
  find_program(GRPC_CPP_PLUGIN grpc_cpp_plugin)
  if(GRPCPP_FOUND AND PROTOBUF_FOUND AND PROTOC AND GRPC_CPP_PLUGIN)
    set(build_gnmi ON)
  elseif(OCTUNNEL_GNMI STREQUAL "ON")
    message(FATAL_ERROR "the gNMI front needs gRPC++, protobuf, protoc and grpc_cpp_plugin (scripts/install-deps.sh)")
  else()
    message(STATUS "the gNMI front left out: gRPC++, protobuf, protoc or grpc_cpp_plugin not found")
  endif()
endif()

if(build_gnmi)
  set(GNMI_PROTO_DIR ${CMAKE_SOURCE_DIR}/third_party/gnmi)
  set(GNMI_GEN_DIR ${CMAKE_BINARY_DIR}/gnmi-gen)
  set(gnmi_ext_rel github.com/openconfig/gnmi/proto/gnmi_ext/gnmi_ext)
  set(gnmi_sources ${GNMI_GEN_DIR}/gnmi.pb.cc ${GNMI_GEN_DIR}/gnmi.grpc.pb.cc
                   ${GNMI_GEN_DIR}/${gnmi_ext_rel}.pb.cc)
  add_custom_command(
    OUTPUT ${gnmi_sources} ${GNMI_GEN_DIR}/gnmi.pb.h ${GNMI_GEN_DIR}/gnmi.grpc.pb.h
           ${GNMI_GEN_DIR}/${gnmi_ext_rel}.pb.h
    COMMAND ${CMAKE_COMMAND} -E make_directory ${GNMI_GEN_DIR}
    COMMAND ${PROTOC} -I ${GNMI_PROTO_DIR} --cpp_out=${GNMI_GEN_DIR} gnmi.proto ${gnmi_ext_rel}.proto
    COMMAND ${PROTOC} -I ${GNMI_PROTO_DIR} --grpc_out=${GNMI_GEN_DIR}
            --plugin=protoc-gen-grpc=${GRPC_CPP_PLUGIN} gnmi.proto
    DEPENDS ${GNMI_PROTO_DIR}/gnmi.proto ${GNMI_PROTO_DIR}/${gnmi_ext_rel}.proto
    COMMENT "Generating the gNMI stubs"
    VERBATIM)
  # Generated code: none of the project's warnings are its business.
  add_library(octunnel_gnmi_proto STATIC ${gnmi_sources})
  target_include_directories(octunnel_gnmi_proto SYSTEM PUBLIC ${GNMI_GEN_DIR})
  target_compile_options(octunnel_gnmi_proto PRIVATE -w)
  set_target_properties(octunnel_gnmi_proto PROPERTIES POSITION_INDEPENDENT_CODE ON)
  target_link_libraries(octunnel_gnmi_proto PUBLIC PkgConfig::GRPCPP PkgConfig::PROTOBUF)

  add_library(octunnel_gnmi STATIC gnmi/server.cpp gnmi/path.cpp gnmi/capabilities.cpp
                                   gnmi/get.cpp gnmi/set.cpp gnmi/subscribe.cpp
                                   gnmi/subscriptions.cpp gnmi/telemetry.cpp)
  target_include_directories(octunnel_gnmi SYSTEM PRIVATE ${RAPIDJSON_INCLUDE_DIRS})
  target_link_libraries(octunnel_gnmi PUBLIC octunnel_access octunnel_gnmi_proto)
  target_compile_definitions(octunnel_serve PRIVATE OCTUNNEL_GNMI)
  target_link_libraries(octunnel_serve PRIVATE octunnel_gnmi)
endif()
