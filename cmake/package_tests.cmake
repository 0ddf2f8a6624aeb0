# Tests of what ships (label package), against a private mosquitto:
#   package_install_c_consumer  cmake --install into the build tree, then the
#                               C gateway built with find_package and with
#                               pkg-config, and run
#   package_deb_c_consumer      the .deb files (cpack), the -dev package
#                               unpacked into a scratch root (dpkg -x) and
#                               the C gateway built against that root, and run
# The libraries carry this build's sanitizers, so the consumer gets them too.
if(NOT SF_BUILD_TESTS OR NOT TARGET sf_posix)
  return()
endif()
find_program(SF_MOSQUITTO_PUB mosquitto_pub)
find_program(SF_MOSQUITTO_BROKER mosquitto PATHS /usr/sbin /usr/local/sbin)
if(NOT SF_MOSQUITTO_PUB OR NOT SF_MOSQUITTO_BROKER)
  message(WARNING "mosquitto or mosquitto-clients missing: the package tests are skipped")
  return()
endif()

set(SF_CONSUMER_FLAGS "")
if(SF_SANITIZE)
  set(SF_CONSUMER_FLAGS -fsanitize=${SF_SANITIZE} -fno-omit-frame-pointer)
endif()
set(SF_PACKAGE_TEST_ENV "PATH=/usr/sbin:/usr/local/sbin:$ENV{PATH}")

add_test(NAME package_install_c_consumer
  COMMAND ${CMAKE_SOURCE_DIR}/examples/c-gateway/check_consumer.sh
          --install ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/package-tests/install ${SF_CONSUMER_FLAGS})
add_test(NAME package_deb_c_consumer
  COMMAND ${CMAKE_SOURCE_DIR}/packaging/check_debs.sh
          ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/package-tests/deb ${SF_CONSUMER_FLAGS})
set_tests_properties(package_install_c_consumer package_deb_c_consumer PROPERTIES
  LABELS package TIMEOUT 600 ENVIRONMENT "${SF_PACKAGE_TEST_ENV}"
  RESOURCE_LOCK sf_install_from_build_tree)
