# `cmake --install build --prefix P` lays out:
#   P/bin/pytarnsh                   the reference host (finds lib/pytarn through its RPATH)
#   P/include/pytarn.h               the exported C entry points
#   P/lib/pytarn/                    library, pkgIndex.tcl and the installation root:
#                                    OrvaShell.py and python/ (links into the system's Python)
#   P/share/man/mann/pytarn.n        the Tcl manual page
#   P/share/doc/pytarn/              README, the Python and embedding guides, the examples
# so that TCLLIBPATH=P/lib tclsh8.6 finds the package and P/bin/pytarnsh runs from anywhere.
set(PYTARN_INSTALL_ROOT lib/pytarn)

install(TARGETS pytarn orvabuffers LIBRARY DESTINATION ${PYTARN_INSTALL_ROOT})
set_target_properties(pytarnsh PROPERTIES INSTALL_RPATH "$ORIGIN/../${PYTARN_INSTALL_ROOT}")
install(TARGETS pytarnsh RUNTIME DESTINATION bin)
install(FILES include/pytarn.h DESTINATION include)
install(FILES "${CMAKE_BINARY_DIR}/pkgIndex.tcl" host/OrvaShell.py
        DESTINATION ${PYTARN_INSTALL_ROOT})

# python/ is made again at install time, as links into the Python this build uses,
# rather than copying the standard library.
install(CODE "
  set(PYTARN_PY_STDLIB \"${PYTARN_PY_STDLIB}\")
  set(PYTARN_PY_DYNLOAD \"${PYTARN_PY_DYNLOAD}\")
  set(PYTARN_PY_SITE \"${PYTARN_PY_SITE}\")
  set(PYTARN_PY_EXECUTABLE \"${PYTARN_PY_EXECUTABLE}\")
  include(\"${CMAKE_SOURCE_DIR}/host/PythonLayout.cmake\")
  set(root \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${PYTARN_INSTALL_ROOT}\")
  message(STATUS \"Linking: \${root}/python\")
  pytarn_make_python_layout(\"\${root}\")
")

install(FILES doc/pytarn.n DESTINATION share/man/mann)
install(FILES README.md doc/python-api.md doc/embedding.md DESTINATION share/doc/pytarn)
install(DIRECTORY examples/ DESTINATION share/doc/pytarn/examples)
