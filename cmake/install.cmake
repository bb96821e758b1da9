# What is installed, and where: programs, libraries, headers, units, policy, man pages. Included last, when all targets
# are there. The demonstration and the tests are not installed.
include(GNUInstallDirs)
set(KAP_UNIT_DIR ${CMAKE_INSTALL_PREFIX}/lib/systemd/system CACHE PATH "where units of systemd go")
set(KAP_SYSUSERS_DIR ${CMAKE_INSTALL_PREFIX}/lib/sysusers.d CACHE PATH "where its users and groups go")
set(KAP_TMPFILES_DIR ${CMAKE_INSTALL_PREFIX}/lib/tmpfiles.d CACHE PATH "where its files of /run go")

# ---- Programs

foreach(program itcd kap-vorn kap-node kap-responder kap-linkd)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
  endif()
endforeach()
foreach(program vornctl kap-trace kap-link)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# ---- Libraries
#
# The number of the interface: it changes when a program linked with the last one would not run any more. The names
# without it, which a linker looks for, lie in a directory of their own, as the headers do: others have such short names,
# too. pkg-config knows both.
set(KAP_LIBRARIES itc ns tri sighandler supervision kap_iemli)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/namelinks)
foreach(library ${KAP_LIBRARIES})
  set_target_properties(${library} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 0)
  install(TARGETS ${library} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP)
  file(CREATE_LINK ../lib${library}.so.0 ${CMAKE_BINARY_DIR}/namelinks/lib${library}.so SYMBOLIC)
  install(FILES ${CMAKE_BINARY_DIR}/namelinks/lib${library}.so DESTINATION ${CMAKE_INSTALL_LIBDIR}/kap)
endforeach()

set(KAP_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/kap)
# The interfaces of the libraries, each a header in C; what is .hpp there is the daemon's own.
file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/include/*.h)
install(FILES ${headers} DESTINATION ${KAP_INCLUDE_DIR})

file(GLOB descriptions CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/packaging/pkgconfig/*.pc.in)
foreach(description ${descriptions})
  cmake_path(GET description STEM LAST_ONLY name)
  configure_file(${description} ${CMAKE_BINARY_DIR}/pkgconfig/${name} @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/pkgconfig/${name} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# ---- What runs them

file(GLOB units CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/packaging/systemd/*)
foreach(unit ${units})
  cmake_path(GET unit FILENAME name)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${unit})
  file(READ ${unit} text)
  string(REPLACE "/usr/sbin/" "${CMAKE_INSTALL_FULL_SBINDIR}/" text "${text}")
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/units/${name} CONTENT "${text}" @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/units/${name} DESTINATION ${KAP_UNIT_DIR})
endforeach()
install(DIRECTORY ${CMAKE_SOURCE_DIR}/packaging/sysusers.d/ DESTINATION ${KAP_SYSUSERS_DIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/packaging/tmpfiles.d/ DESTINATION ${KAP_TMPFILES_DIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/packaging/policy.d
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/kap-itc)
if(EXISTS ${CMAKE_SOURCE_DIR}/packaging/kap-node.toml)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/kap-node.toml DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/kap-node)
endif()
if(KAP_LINKD)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/packaging/kap-vorn DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR})
  install(FILES ${CMAKE_SOURCE_DIR}/docs/schema/kap-linkd-control.json
          DESTINATION ${CMAKE_INSTALL_DATADIR}/kap-vorn/schema)
endif()

# ---- What shells and programs need to know of the programs

if(TARGET vornctl)
  set(completion ${CMAKE_SOURCE_DIR}/packaging/completion)
  install(FILES ${completion}/vornctl.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME vornctl)
  install(FILES ${completion}/_vornctl DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions)
  install(FILES ${completion}/vornctl.fish DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
  file(GLOB schemas CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/schema/vornctl-*.json)
  install(FILES ${schemas} DESTINATION ${CMAKE_INSTALL_DATADIR}/kap-vorn/schema)
endif()

# ---- Wireshark looks for dissectors there

install(FILES ${CMAKE_SOURCE_DIR}/packaging/wireshark/kap_vorn.lua
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins)

# ---- What kap-linkd tells: to the journal, to Prometheus

if(KAP_LINKD)
  install(FILES ${CMAKE_SOURCE_DIR}/packaging/catalog/kap-linkd.catalog
          DESTINATION ${CMAKE_INSTALL_PREFIX}/lib/systemd/catalog)
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/packaging/prometheus
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kap-linkd)
endif()

# ---- Manual

foreach(section 1 5 7 8)
  file(GLOB pages CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/docs/man/*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
