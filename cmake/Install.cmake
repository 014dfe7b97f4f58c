# What `cmake --install` puts where, in four components: runtime (the library), dev (headers, package files), tools (the
# programs and the host platform), forward (the program that needs MQTT).
include(CMakePackageConfigHelpers)

# The host platform's libraries bear the names of real ones, which they must never shadow: they have a directory of
# their own that only what is installed here looks into.
set(REPORT_EVENT_HOST_LIBDIR ${CMAKE_INSTALL_LIBDIR}/report_event/host)
set(REPORT_EVENT_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/report_event)
set(REPORT_EVENT_PKGCONFIGDIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# relative_path(VARIABLE FROM TO): the way from one directory of the installed tree to another.
function(relative_path variable from to)
  file(RELATIVE_PATH path /prefix/${from} /prefix/${to})
  string(REGEX REPLACE "/$" "" path "${path}")
  set(${variable} ${path} PARENT_SCOPE)
endfunction()

set_target_properties(report_event_headers PROPERTIES EXPORT_NAME headers)
install(TARGETS report_event report_event_headers
        EXPORT report_eventTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(DIRECTORY include/report_event DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

relative_path(REPORT_EVENT_PREFIX_FROM_PKGCONFIG ${REPORT_EVENT_PKGCONFIGDIR} "")
# A program finds a library outside the system's directories by itself; a device's image has places of its own.
set(REPORT_EVENT_RUN_PATH "")
if(REPORT_EVENT_HOST_PLATFORM AND NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(REPORT_EVENT_RUN_PATH " -Wl,-rpath,\${libdir}")
endif()
configure_file(cmake/report_event.pc.in report_event.pc @ONLY)
set(package_files ${PROJECT_BINARY_DIR}/report_event.pc)

if(REPORT_EVENT_HOST_PLATFORM)
  set_target_properties(report_event PROPERTIES INSTALL_RPATH $ORIGIN/report_event/host)
  set_target_properties(fte iam slog c_sec PROPERTIES INSTALL_RPATH $ORIGIN)
  set_target_properties(report_event_host_platform PROPERTIES EXPORT_NAME host_platform)
  install(TARGETS fte iam slog c_sec report_event_host_platform
          EXPORT report_eventTargets
          LIBRARY DESTINATION ${REPORT_EVENT_HOST_LIBDIR} COMPONENT tools)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/include/report_event_host_platform
          DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
  configure_file(cmake/report_event_host_platform.pc.in report_event_host_platform.pc @ONLY)
  list(APPEND package_files ${PROJECT_BINARY_DIR}/report_event_host_platform.pc)
endif()

if(TARGET report-event-monitor)
  set(tools monitor)
  if(TARGET report-event-publish)
    list(APPEND tools publish)
  endif()
  relative_path(libdir_from_bindir ${CMAKE_INSTALL_BINDIR} ${CMAKE_INSTALL_LIBDIR})
  foreach(tool ${tools})
    set_target_properties(
      report-event-${tool}
      PROPERTIES INSTALL_RPATH "$ORIGIN/${libdir_from_bindir};$ORIGIN/${libdir_from_bindir}/report_event/host")
    install(TARGETS report-event-${tool} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    # bash looks for a file of the command's name.
    install(FILES tools/completion/report-event DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
            RENAME report-event-${tool} COMPONENT tools)
  endforeach()
  install(FILES docs/json.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tools)
endif()

if(TARGET report-event-forward)
  set_target_properties(
    report-event-forward
    PROPERTIES INSTALL_RPATH "$ORIGIN/${libdir_from_bindir};$ORIGIN/${libdir_from_bindir}/report_event/host")
  install(TARGETS report-event-forward DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT forward)
  install(FILES tools/completion/report-event DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME report-event-forward COMPONENT forward)
  install(FILES docs/fleet.md DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/report-event-forward COMPONENT forward)
  install(FILES tools/forward/report-event-forward.service DESTINATION lib/systemd/system COMPONENT forward)
endif()

configure_package_config_file(cmake/report_eventConfig.cmake.in report_eventConfig.cmake
                              INSTALL_DESTINATION ${REPORT_EVENT_CMAKEDIR})
write_basic_package_version_file(report_eventConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(EXPORT report_eventTargets
        NAMESPACE report_event::
        DESTINATION ${REPORT_EVENT_CMAKEDIR} COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/report_eventConfig.cmake ${PROJECT_BINARY_DIR}/report_eventConfigVersion.cmake
        DESTINATION ${REPORT_EVENT_CMAKEDIR} COMPONENT dev)
install(FILES ${package_files} DESTINATION ${REPORT_EVENT_PKGCONFIGDIR} COMPONENT dev)
