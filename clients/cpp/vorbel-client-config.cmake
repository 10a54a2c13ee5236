# For find_package(vorbel-client): the target Vorbel::client.
include(CMakeFindDependencyMacro)
find_dependency(Qt5 5.15 COMPONENTS Core Network WebSockets)
include(${CMAKE_CURRENT_LIST_DIR}/vorbel-client-targets.cmake)
