# `docs`: the HTML API reference of the native interface (build/docs/html
# with `make docs`), when Doxygen is installed. The README is its front page.
#
# The headers document themselves in plain // comments (the banner above a
# class, the line above an operation); Doxygen reads them as /// through
# scripts/doxygen-comments. Warnings fail the build.
find_package(Doxygen 1.9)
if(NOT DOXYGEN_FOUND)
  return()
endif()

set(DOXYGEN_PROJECT_NAME "libqzparallellanguagefuture")
set(DOXYGEN_PROJECT_NUMBER "${PROJECT_VERSION}")
set(DOXYGEN_PROJECT_BRIEF "futures of the Korvex array-language runtime")
set(DOXYGEN_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}")
set(DOXYGEN_GENERATE_HTML YES)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE "${PROJECT_SOURCE_DIR}/README.md")
set(DOXYGEN_IMAGE_PATH "${PROJECT_SOURCE_DIR}/docs")
set(DOXYGEN_FILE_PATTERNS *.hpp *.md)
set(DOXYGEN_EXTENSION_MAPPING hpp=C++)
set(DOXYGEN_FILTER_PATTERNS "*.hpp=${PROJECT_SOURCE_DIR}/scripts/doxygen-comments")
set(DOXYGEN_EXTRACT_ALL YES)
set(DOXYGEN_EXTRACT_PRIVATE NO)
set(DOXYGEN_EXCLUDE_SYMBOLS "*::detail" "*::detail::*")
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_MARKDOWN_SUPPORT YES)
set(DOXYGEN_ENABLE_PREPROCESSING YES)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_PREDEFINED "QZ_FUTURE_API=" "QZHOST_API=" "QZ_GUARDED_BY(x)=" "QZ_PT_GUARDED_BY(x)="
  "QZ_REQUIRES(...)=" "QZ_EXCLUDES(...)=" "QZ_ACQUIRE(...)=" "QZ_RELEASE(...)="
  "QZ_TRY_ACQUIRE(...)=" "QZ_RETURN_CAPABILITY(x)=" "QZ_CAPABILITY(x)="
  "QZ_SCOPED_CAPABILITY=" "QZ_NO_THREAD_SAFETY_ANALYSIS=")
set(DOXYGEN_STRIP_FROM_INC_PATH
  "${PROJECT_SOURCE_DIR}/parallel/src/language/future/include"
  "${PROJECT_SOURCE_DIR}/executors/include"
  "${PROJECT_SOURCE_DIR}/executors/local/include"
  "${PROJECT_SOURCE_DIR}/executors/mpi/include")
set(DOXYGEN_STRIP_FROM_PATH "${PROJECT_SOURCE_DIR}")
set(DOXYGEN_QUIET YES)
set(DOXYGEN_WARN_IF_UNDOCUMENTED NO)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
set(DOXYGEN_HAVE_DOT NO)

doxygen_add_docs(docs
  "${PROJECT_SOURCE_DIR}/README.md"
  "${PROJECT_SOURCE_DIR}/parallel/src/language/future/include"
  "${PROJECT_SOURCE_DIR}/executors/include"
  "${PROJECT_SOURCE_DIR}/executors/local/include"
  "${PROJECT_SOURCE_DIR}/executors/mpi/include"
  WORKING_DIRECTORY "${PROJECT_SOURCE_DIR}"
  COMMENT "Building the API reference in ${PROJECT_BINARY_DIR}/html")
