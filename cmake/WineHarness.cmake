# Tests of the Windows build run under Wine in a private prefix inside the build folder.
# A CTest fixture starts that prefix's persistent Wine server before the first test and stops
# it after the last; every test executable runs through the emulator script.
set(VELOMAR_WINEPREFIX "${CMAKE_BINARY_DIR}/wineprefix" CACHE PATH "Private Wine prefix of this build")
configure_file(${CMAKE_CURRENT_LIST_DIR}/wine-run.sh.in ${CMAKE_BINARY_DIR}/wine-run.sh
  @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run.sh)

add_executable(velomar_wine_keepalive ${CMAKE_CURRENT_LIST_DIR}/WineKeepAlive.cpp)
add_test(NAME wine_prefix_start
  COMMAND ${CMAKE_CURRENT_LIST_DIR}/wine-prefix.sh start ${VELOMAR_WINEPREFIX} $<TARGET_FILE:velomar_wine_keepalive>)
set_tests_properties(wine_prefix_start PROPERTIES FIXTURES_SETUP wine_prefix TIMEOUT 120)
add_test(NAME wine_prefix_stop COMMAND ${CMAKE_CURRENT_LIST_DIR}/wine-prefix.sh stop ${VELOMAR_WINEPREFIX})
set_tests_properties(wine_prefix_stop PROPERTIES FIXTURES_CLEANUP wine_prefix TIMEOUT 60)
