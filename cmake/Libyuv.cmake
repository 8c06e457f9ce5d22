# libyuv (Debian libyuv-dev: headers and libyuv.so, no pkg-config file) as libyuv::yuv.
find_path(LIBYUV_INCLUDE_DIR libyuv.h REQUIRED)
find_library(LIBYUV_LIBRARY yuv REQUIRED)
if(NOT TARGET libyuv::yuv)
  add_library(libyuv::yuv UNKNOWN IMPORTED GLOBAL)
  set_target_properties(libyuv::yuv PROPERTIES
    IMPORTED_LOCATION ${LIBYUV_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${LIBYUV_INCLUDE_DIR})
endif()
