# Installs the library, its headers and the helper, and what lets other projects find them:
# a CMake package (find_package(Velum), targets Velum::core and the others) and velum.pc.
include(CMakePackageConfigHelpers)

install(TARGETS velum_core velum_storage velum_messaging velum_telemetry velum_certificates
  velum_ui EXPORT VelumTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS vpn_relauncher RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES docs/vpn_relauncher.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
if(TARGET velumctl)
  install(TARGETS velumctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES docs/velumctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES velumctl/completions/velumctl.bash RENAME velumctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES velumctl/completions/_velumctl
    DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
endif()

# What applications may include: the services, the Logger, and what these headers stand on. (A test
# compiles each of the installed ones alone.) The rest may change without asking anybody.
set(headers_of_. AES CertUtils DirectoryMonitor FileUtils IPCDarwinMessage KeyChain KeyChainData
  KeyChainStorage KeychainSearch KeyStorage KeyStorageProtocol Process Relauncher SecureDefaults
  SecureStorage SupportUtils SystemInfo SystemUtils Telemetry UIUtils URLSession)
set(headers_of_Base AtFork ByteBuffer ByteView Fatal LazyValue ProcessFlag Progress RawValue
  SecretBytes String SystemError Termination)
set(headers_of_Concurrency ForkSafeLock SyncAsync ThreadLocal UnfairLock)
set(headers_of_Files AtomicFile CheckedIo FileIdentity FileLock FileStamp TemporaryFolder UniqueFd)
set(headers_of_HTTP BodySource HTTPHeaders URLError URLRequest URLResponse)
set(headers_of_Logger FileLogManager LogHandler Logger LogLevel LogManager LogRecord LogSaving
  LogSearch LogSplitter)
set(headers_of_Logger/Handlers FileLogHandler NSLogHandler OSLogHandler StdoutLogHandler)
set(headers_of_Platform CertificateStore ChildIo CodeIdentity Dispatch FileClone FileEvents
  HardwareRegistry Keychains NotifyCenter SecretStatus SecretStore Spawn SystemLog Thread Tool URLLoader UserDefaults
  WindowSystem Workspace)
set(headers_of_PropertyList PropertyList)
set(headers_of_Sealing StorageError)
foreach(folder . Base Concurrency Files HTTP Logger Logger/Handlers Platform PropertyList
    Sealing)
  list(TRANSFORM headers_of_${folder} REPLACE ".+" "Velum/${folder}/\\0.h" OUTPUT_VARIABLE paths)
  cmake_path(SET destination NORMALIZE ${CMAKE_INSTALL_INCLUDEDIR}/Velum/${folder})
  install(FILES ${paths} DESTINATION ${destination})
endforeach()

# Below lib whatever the libraries' folder is called: there systemd-tmpfiles looks.
install(FILES packaging/velum.conf DESTINATION lib/tmpfiles.d)

set(package ${CMAKE_INSTALL_LIBDIR}/cmake/Velum)
install(EXPORT VelumTargets NAMESPACE Velum:: DESTINATION ${package})
configure_package_config_file(cmake/VelumConfig.cmake.in VelumConfig.cmake
  INSTALL_DESTINATION ${package} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(VelumConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VelumConfig.cmake ${PROJECT_BINARY_DIR}/VelumConfigVersion.cmake
  DESTINATION ${package})

# Relative to velum.pc itself, so that an installed tree can be moved.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
  BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE prefix_from_pc)
foreach(name velum velum-storage velum-messaging velum-telemetry velum-certificates
    velum-ui)
  configure_file(cmake/${name}.pc.in ${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
