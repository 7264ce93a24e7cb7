# What `cmake --install` installs, and, with FWFORGE_PACKAGE, the packages CPack makes of
# it (scripts/package.sh configures and runs both):
#   on Linux, fwforge_<version>_<arch>.deb: the programs in /usr/bin, their manual pages,
#     bash completion, README.md and the licence as /usr/share/doc/fwforge/copyright;
#   cross-built for Windows, fwforge-<version>-win64.zip: the three .exe files, the
#     manual pages as text, the PowerShell completion, README.md and LICENSE.txt.
# Included from CMakeLists.txt before the programs are defined (the package build links
# them differently); fwforge_install() at its end adds the install rules.

option(FWFORGE_PACKAGE "Build for a package: static C++ runtime, version with the git \
commit, package layout, CPack configured" OFF)

# The helper tools' --version. A package says which commit it was built from; the
# fwforge banner keeps its fixed version text in every build.
set(FWFORGE_BUILD_VERSION ${PROJECT_VERSION})
if(FWFORGE_PACKAGE)
  find_package(Git QUIET)
  if(GIT_FOUND)
    execute_process(COMMAND ${GIT_EXECUTABLE} rev-parse --short=10 HEAD
                    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
                    RESULT_VARIABLE git_status OUTPUT_VARIABLE git_commit
                    OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
    if(git_status EQUAL 0)
      set(FWFORGE_BUILD_VERSION ${PROJECT_VERSION}+g${git_commit})
    endif()
  endif()
  message(STATUS "Package version ${FWFORGE_BUILD_VERSION}")
  # Without libstdc++ and libgcc_s among its libraries, the Debian package depends on
  # the C library alone. (The Windows build links everything statically already.)
  if(NOT WIN32)
    add_link_options(-static-libstdc++ -static-libgcc)
  endif()
endif()

# A page of man/ as the install needs it: as it is for `cmake --install`, gzip'd for the
# Debian package, rendered to text with CR LF line ends for the Windows archive. Sets
# VAR to the file to install.
function(fwforge_manual_page var tool)
  set(page ${PROJECT_SOURCE_DIR}/man/${tool}.1)
  if(NOT FWFORGE_PACKAGE)
    set(${var} ${page} PARENT_SCOPE)
    return()
  endif()
  if(WIN32)
    set(out ${PROJECT_BINARY_DIR}/manual/${tool}.txt)
    add_custom_command(OUTPUT ${out}
      COMMAND ${CMAKE_COMMAND} -DPAGE=${page} -DOUT=${out}
              -P ${PROJECT_SOURCE_DIR}/cmake/render-page.cmake
      DEPENDS ${page} ${PROJECT_SOURCE_DIR}/cmake/render-page.cmake
      COMMENT "Rendering the manual page of ${tool} as text")
  else()
    # -n: no name or time stamp in the gzip header, so the same page gives the same bytes.
    set(out ${PROJECT_BINARY_DIR}/manual/${tool}.1.gz)
    add_custom_command(OUTPUT ${out}
      COMMAND ${CMAKE_COMMAND} -E copy ${page} ${PROJECT_BINARY_DIR}/manual/${tool}.1
      COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/manual/${tool}.1
      DEPENDS ${page}
      COMMENT "Compressing the manual page of ${tool}")
  endif()
  add_custom_target(${tool}_manual_page ALL DEPENDS ${out})
  set(${var} ${out} PARENT_SCOPE)
endfunction()

# The install rules: the programs that were built, their manual pages, completion and
# the documents.
function(fwforge_install)
  set(bindir ${CMAKE_INSTALL_BINDIR})
  set(mandir ${CMAKE_INSTALL_MANDIR}/man1)
  set(docdir ${CMAKE_INSTALL_DOCDIR})
  set(licence LICENSE)
  if(FWFORGE_PACKAGE AND WIN32)
    # The archive unpacks to one folder: programs and documents at its top.
    set(bindir .)
    set(mandir manual)
    set(docdir .)
    set(licence LICENSE.txt)
  elseif(FWFORGE_PACKAGE)
    # Debian keeps a package's licence in its doc folder under this name.
    set(licence copyright)
  endif()

  foreach(tool fwforge fwforge-inspect fwforge-lzh)
    if(NOT TARGET ${tool})
      continue()
    endif()
    install(TARGETS ${tool} RUNTIME DESTINATION ${bindir})
    fwforge_manual_page(page ${tool})
    install(FILES ${page} DESTINATION ${mandir})
    if(tool STREQUAL "fwforge")
      continue()
    endif()
    if(NOT WIN32)
      # Named after the command, where bash-completion looks when it is first completed.
      install(FILES completion/${tool}.bash
              DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${tool})
    endif()
  endforeach()
  if(WIN32 AND TARGET fwforge-inspect)
    install(FILES completion/fwforge.ps1 DESTINATION ${bindir})
  endif()
  install(FILES README.md DESTINATION ${docdir})
  install(FILES LICENSE DESTINATION ${docdir} RENAME ${licence})
endfunction()

if(NOT FWFORGE_PACKAGE)
  return()
endif()

set(CPACK_PACKAGE_NAME fwforge)
set(CPACK_PACKAGE_VERSION ${FWFORGE_BUILD_VERSION})
set(CPACK_PACKAGE_VENDOR "The FWFORGE Project")
set(CPACK_PACKAGE_CONTACT "The FWFORGE Project")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "assembles BIOS ROM images from a build script")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_STRIP_FILES ON)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME fwforge-${FWFORGE_BUILD_VERSION}-win64)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  # fwforge_<version>_<arch>.deb, the architecture as dpkg names it.
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION devel)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  # The dependencies are those of the programs' shared libraries, as dpkg-shlibdeps
  # reads them.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
  # The long description below the summary line; CPack indents it.
  set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
      "fwforge reads a build script that names the boot block, the ROM image and its
size and a list of modules, and writes the ROM image with its boot-block and
image-information files. fwforge-inspect lists, verifies, extracts, maps and
compares finished images and replaces one module of an image; fwforge-lzh
compresses and decodes module data as the build stores it.")
endif()
include(CPack)
