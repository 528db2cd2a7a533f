# Media units of the open library, compiled in directly: they have no face in the C contract.
set(media_source_dir ${PROJECT_SOURCE_DIR}/sarnet)
file(GLOB media_test_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/media_*_test.cpp)
pkg_check_modules(MEDIA_SAMPLERATE REQUIRED IMPORTED_TARGET samplerate)
pkg_check_modules(MEDIA_JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
find_library(LIBYUV_LIBRARY yuv REQUIRED)

add_executable(sarnet_media_tests ${media_test_sources}
  ${media_source_dir}/core/audio_mixer.cpp
  ${media_source_dir}/core/audio_resampler.cpp
  ${media_source_dir}/core/drift_buffer.cpp
  ${media_source_dir}/core/file_plugin.cpp
  ${media_source_dir}/core/picture.cpp
  ${media_source_dir}/core/picture_converter.cpp
  ${media_source_dir}/core/sibling_library.cpp
  ${media_source_dir}/embedded/json_node.cpp
  ${media_source_dir}/embedded/scenario.cpp
  ${media_source_dir}/embedded/scenario_parser.cpp
  ${media_source_dir}/embedded/test_media.cpp)
target_include_directories(sarnet_media_tests PRIVATE ${media_source_dir})
target_compile_definitions(sarnet_media_tests PRIVATE
  SARNET_FILES_PATH="$<TARGET_FILE:sarnet_files>")
target_link_libraries(sarnet_media_tests PRIVATE
  sarnet_contract PkgConfig::MEDIA_SAMPLERATE PkgConfig::MEDIA_JSONCPP ${LIBYUV_LIBRARY}
  Threads::Threads ${CMAKE_DL_LIBS} GTest::gmock_main tavrin_warnings)
add_dependencies(sarnet_media_tests sarnet_files)
gtest_discover_tests(sarnet_media_tests
  PROPERTIES TIMEOUT 120 LABELS contract DISCOVERY_TIMEOUT 60)
