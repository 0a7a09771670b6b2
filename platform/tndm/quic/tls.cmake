# TLS beneath the transport's QUIC connections; include() it from the transport's CMakeLists.txt.
find_package(PkgConfig REQUIRED)
pkg_check_modules(GNUTLS REQUIRED IMPORTED_TARGET GLOBAL gnutls)
pkg_check_modules(NGTCP2 REQUIRED IMPORTED_TARGET GLOBAL libngtcp2 libngtcp2_crypto_gnutls)

add_library(tndm_tls STATIC
  ${CMAKE_CURRENT_LIST_DIR}/credentials.cpp
  ${CMAKE_CURRENT_LIST_DIR}/secret.cpp
  ${CMAKE_CURRENT_LIST_DIR}/tls_session.cpp)
target_link_libraries(tndm_tls PUBLIC tandem_settings PkgConfig::NGTCP2 PkgConfig::GNUTLS)
