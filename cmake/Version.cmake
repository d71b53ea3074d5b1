# The program's version is the one given to project() in CMakeLists.txt. It reaches the code
# through a generated header (service::kProgramVersion, the version resources) and the installer
# package through VELOMAR_PACKAGE_VERSION.
if(PROJECT_VERSION_MAJOR GREATER 255 OR PROJECT_VERSION_MINOR GREATER 255 OR PROJECT_VERSION_PATCH GREATER 255)
  message(FATAL_ERROR "The start record packs the version into three bytes; ${PROJECT_VERSION} does not fit")
endif()
set(VELOMAR_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
configure_file(${CMAKE_CURRENT_LIST_DIR}/VelomarVersion.h.in ${VELOMAR_GENERATED_DIR}/VelomarVersion.h @ONLY)
target_include_directories(velomar_options INTERFACE ${VELOMAR_GENERATED_DIR})
