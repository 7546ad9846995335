# How the project's programs are built, installed and given their manual pages.
#
# brevi_add_program(<target> SOURCES <file>... [LIBRARIES <library>...]
#                   [NAME <program>] [SUMMARY "<one line>"] [SERVICE | EXAMPLE])
#
#   Builds the program <target> (called <program> on disk, if NAME is given),
#   installs it, and makes its manual page from its own --help, so that the two
#   never disagree. SUMMARY is the page's one-line NAME entry. Text that --help
#   does not hold (files, environment, see also) goes in <program>.h2m beside
#   the sources, in help2man's include format; it is used when it is there.
#   A SERVICE (a daemon that the system starts) goes to sbin with a page in
#   section 8, any other program to bin with a page in section 1. An EXAMPLE
#   is only built: it is neither installed nor given a page.
#
# brevi_add_manual(<program> SECTION <n> SUMMARY "<one line>"
#                  (TARGET <target> | EXECUTABLE <path>) [DEPENDS <target>...])
#
#   The manual page alone, for a program built some other way (a script, the
#   launcher of a Java program). help2man runs `<program> --help` with the
#   program's directory first on PATH, so that the page shows its plain name.
#
# brevi_add_service_unit(<unit>.in)
#
#   Fills in a systemd unit's paths and installs it in BREVI_SYSTEMD_UNIT_DIR.
#   Units and the services' settings files name the installed directories as
#   @BREVI_SBINDIR@, @BREVI_SYSCONFDIR@ and @BREVI_LIBEXECDIR@.

find_program(BREVI_HELP2MAN help2man)
if(BREVI_SANITIZE OR NOT BREVI_HELP2MAN)
  set(manualsByDefault OFF)
else()
  set(manualsByDefault ON)
endif()
option(BREVI_BUILD_MANUALS "Make the programs' manual pages with help2man" ${manualsByDefault})
if(BREVI_BUILD_MANUALS AND NOT BREVI_HELP2MAN)
  message(FATAL_ERROR "BREVI_BUILD_MANUALS needs help2man (Debian package help2man)")
endif()

# Relative to the prefix unless given; a package build names /lib/systemd/system.
set(BREVI_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING "Where the systemd units are installed")
set(BREVI_SBINDIR ${CMAKE_INSTALL_FULL_SBINDIR})
set(BREVI_SYSCONFDIR ${CMAKE_INSTALL_FULL_SYSCONFDIR})
set(BREVI_LIBEXECDIR ${CMAKE_INSTALL_FULL_LIBEXECDIR})

function(brevi_add_manual name)
  cmake_parse_arguments(MANUAL "" "SECTION;SUMMARY;TARGET;EXECUTABLE" "DEPENDS" ${ARGN})
  if(NOT BREVI_BUILD_MANUALS)
    return()
  endif()
  if(MANUAL_TARGET)
    set(directory $<TARGET_FILE_DIR:${MANUAL_TARGET}>)
    set(command $<TARGET_FILE_NAME:${MANUAL_TARGET}>)
    list(APPEND MANUAL_DEPENDS ${MANUAL_TARGET})
  else()
    get_filename_component(directory ${MANUAL_EXECUTABLE} DIRECTORY)
    get_filename_component(command ${MANUAL_EXECUTABLE} NAME)
  endif()
  set(page ${PROJECT_BINARY_DIR}/man/man${MANUAL_SECTION}/${name}.${MANUAL_SECTION})
  set(include ${CMAKE_CURRENT_SOURCE_DIR}/${name}.h2m)
  set(includeArguments)
  if(EXISTS ${include})
    set(includeArguments --include ${include})
    list(APPEND MANUAL_DEPENDS ${include})
  endif()
  add_custom_command(OUTPUT ${page}
    COMMAND ${CMAKE_COMMAND} -E env "PATH=${directory}:$ENV{PATH}"
            ${BREVI_HELP2MAN} --no-info --section ${MANUAL_SECTION}
            --name ${MANUAL_SUMMARY} --version-string ${PROJECT_VERSION} ${includeArguments}
            --output ${page} ${command}
    DEPENDS ${MANUAL_DEPENDS}
    COMMENT "Manual page ${name}(${MANUAL_SECTION})"
    VERBATIM)
  add_custom_target(${name}_manual ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${MANUAL_SECTION})
endfunction()

function(brevi_add_program target)
  cmake_parse_arguments(PROGRAM "SERVICE;EXAMPLE" "NAME;SUMMARY" "SOURCES;LIBRARIES" ${ARGN})
  add_executable(${target} ${PROGRAM_SOURCES})
  target_link_libraries(${target} PRIVATE ${PROGRAM_LIBRARIES})
  if(PROGRAM_NAME)
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${PROGRAM_NAME})
  else()
    set(PROGRAM_NAME ${target})
  endif()
  if(PROGRAM_EXAMPLE)
    return()
  endif()
  if(NOT PROGRAM_SUMMARY)
    message(FATAL_ERROR "brevi_add_program(${target}): an installed program needs a SUMMARY for its manual page")
  endif()
  if(PROGRAM_SERVICE)
    install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
    set(section 8)
  else()
    install(TARGETS ${target} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    set(section 1)
  endif()
  brevi_add_manual(${PROGRAM_NAME} SECTION ${section} SUMMARY "${PROGRAM_SUMMARY}" TARGET ${target})
endfunction()

function(brevi_add_service_unit template)
  get_filename_component(unit ${template} NAME_WLE)
  configure_file(${template} ${CMAKE_CURRENT_BINARY_DIR}/${unit} @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${unit} DESTINATION ${BREVI_SYSTEMD_UNIT_DIR})
endfunction()
