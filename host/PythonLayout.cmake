# Installation roots. pytarnsh makes a root the working directory while the library
# starts, and the library's fixed search path (python/lib, python/, python/bin/linux64,
# python/lib/site-packages, then the root itself) finds Python and OrvaShell.py there.
# Roots are made of symlinks into the system's Python so that nothing is copied.

# Makes ROOT/python from PYTARN_PY_STDLIB, PYTARN_PY_DYNLOAD, PYTARN_PY_SITE and
# PYTARN_PY_EXECUTABLE. python/lib is a real directory of per-entry links, which leaves
# room for site-packages. python/bin/ names the installation's program, which the
# library reports as sys.executable so that Python code can start a Python of its own.
function(pytarn_make_python_layout ROOT)
  set(lib "${ROOT}/python/lib")
  file(MAKE_DIRECTORY "${lib}" "${ROOT}/python/bin")
  file(GLOB entries RELATIVE "${PYTARN_PY_STDLIB}" "${PYTARN_PY_STDLIB}/*")
  foreach(entry IN LISTS entries)
    file(CREATE_LINK "${PYTARN_PY_STDLIB}/${entry}" "${lib}/${entry}" SYMBOLIC)
  endforeach()
  file(CREATE_LINK "${PYTARN_PY_SITE}" "${lib}/site-packages" SYMBOLIC)
  file(CREATE_LINK "${PYTARN_PY_DYNLOAD}" "${ROOT}/python/bin/linux64" SYMBOLIC)
  if(EXISTS "${PYTARN_PY_EXECUTABLE}")
    get_filename_component(program "${PYTARN_PY_EXECUTABLE}" NAME)
    file(CREATE_LINK "${PYTARN_PY_EXECUTABLE}" "${ROOT}/python/bin/${program}" SYMBOLIC)
  endif()
endfunction()

# Makes a variant root DIR for tests (run pytarnsh with PYTARN_HOME=DIR): its own copy of
# ORVASHELL_SOURCE, kept current by re-configuring when the source changes, and a link to
# the main root's python/.
function(pytarn_make_root DIR ORVASHELL_SOURCE)
  configure_file("${ORVASHELL_SOURCE}" "${DIR}/OrvaShell.py" COPYONLY)
  file(CREATE_LINK "${PYTARN_ROOT}/python" "${DIR}/python" SYMBOLIC)
endfunction()
