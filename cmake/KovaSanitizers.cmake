# KOVA_SANITIZE applies one sanitizer set to everything built here, so that the library, the
# daemon and the tests agree on one runtime.
if(KOVA_SANITIZE)
  set(_kova_san_flags -fsanitize=${KOVA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_compile_options(${_kova_san_flags})
  add_link_options(${_kova_san_flags})
endif()
