# What `cmake --install` puts in place for a program that uses the library:
# the shared library, its public headers with every platform header they
# include, the platform libraries such a program links (static, PIC), a CMake
# package (find_package(KivSegmentPrefixProcessor) gives
# KivSegmentPrefixProcessor::KivSegmentPrefixProcessor) and a pkg-config file.
# kivsim installs itself (tools/kivsim).

include(CMakePackageConfigHelpers)

set(KIV_PACKAGE KivSegmentPrefixProcessor)
set(KIV_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/${KIV_PACKAGE})
# The platform archives get a directory of their own: names such as
# libRouting.a or libTrace.a must not meet other projects' in the libdir.
set(KIV_INSTALL_PLATFORMDIR ${CMAKE_INSTALL_LIBDIR}/${KIV_PACKAGE})

# kiv_header_source(HEADER OUT): the file behind an include path, searched
# like the compiler does (top of the tree first, then platform/).
function(kiv_header_source header out)
  foreach(root ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/platform)
    if(EXISTS ${root}/${header})
      set(${out} ${root}/${header} PARENT_SCOPE)
      return()
    endif()
  endforeach()
  message(FATAL_ERROR "installed headers include \"${header}\", which is not in the tree")
endfunction()

# kiv_header_closure(OUT ROOTS...): the ROOTS and every header they include
# with quotes, recursively, as include paths. Configuring again when one of
# them changes keeps the installed set complete.
function(kiv_header_closure out)
  set(pending ${ARGN})
  set(seen "")
  while(pending)
    list(POP_FRONT pending header)
    if(header IN_LIST seen)
      continue()
    endif()
    list(APPEND seen ${header})
    kiv_header_source(${header} source)
    set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
    file(STRINGS ${source} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*\"([^\"]+)\".*" "\\1" included "${line}")
      list(APPEND pending ${included})
    endforeach()
  endwhile()
  set(${out} ${seen} PARENT_SCOPE)
endfunction()

# Public: every header of the library, and the trace a program installs to
# see the library's decisions (Trace::ScopedDuolog).
file(GLOB kivPublicHeaders CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}
  ${PROJECT_SOURCE_DIR}/Kiv/*.h ${PROJECT_SOURCE_DIR}/KivSegmentSecurity/*.h)
kiv_header_closure(kivInstalledHeaders ${kivPublicHeaders} Trace/Trace.h)
foreach(header IN LISTS kivInstalledHeaders)
  kiv_header_source(${header} source)
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES ${source} DESTINATION ${KIV_INSTALL_INCLUDEDIR}/${dir})
endforeach()

# The platform libraries the package target links, in link order.
get_target_property(kivPlatformLibraries ${KIV_PACKAGE} INTERFACE_LINK_LIBRARIES)
install(TARGETS ${KIV_PACKAGE} ${kivPlatformLibraries}
  EXPORT ${KIV_PACKAGE}Targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${KIV_INSTALL_PLATFORMDIR})
install(EXPORT ${KIV_PACKAGE}Targets
  NAMESPACE ${KIV_PACKAGE}::
  DESTINATION ${KIV_INSTALL_CMAKEDIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/${KIV_PACKAGE}Config.cmake.in
  ${PROJECT_BINARY_DIR}/${KIV_PACKAGE}Config.cmake
  INSTALL_DESTINATION ${KIV_INSTALL_CMAKEDIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/${KIV_PACKAGE}ConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY ${KIV_VERSION_COMPATIBILITY})
install(FILES
  ${PROJECT_BINARY_DIR}/${KIV_PACKAGE}Config.cmake
  ${PROJECT_BINARY_DIR}/${KIV_PACKAGE}ConfigVersion.cmake
  DESTINATION ${KIV_INSTALL_CMAKEDIR})

# pkg-config: paths relative to the .pc file's own directory, so that the
# file is right wherever --prefix puts it.
set(kivPcDir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH kivPcToPrefix /prefix/${kivPcDir} /prefix)
string(REGEX REPLACE "/$" "" kivPcToPrefix "${kivPcToPrefix}")
set(KIV_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
set(KIV_PC_INCLUDEDIR "\${prefix}/${KIV_INSTALL_INCLUDEDIR}")
set(KIV_PC_PLATFORMDIR "\${prefix}/${KIV_INSTALL_PLATFORMDIR}")
set(KIV_PC_ARCHIVES "")
foreach(lib IN LISTS kivPlatformLibraries)
  get_target_property(type ${lib} TYPE)
  if(type STREQUAL "STATIC_LIBRARY")
    string(APPEND KIV_PC_ARCHIVES " \${platformdir}/$<TARGET_FILE_NAME:${lib}>")
  endif()
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/kivsegmentprefixprocessor.pc.in
  ${PROJECT_BINARY_DIR}/kivsegmentprefixprocessor.pc.gen @ONLY)
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/kivsegmentprefixprocessor.pc
  INPUT ${PROJECT_BINARY_DIR}/kivsegmentprefixprocessor.pc.gen)
install(FILES ${PROJECT_BINARY_DIR}/kivsegmentprefixprocessor.pc DESTINATION ${kivPcDir})
