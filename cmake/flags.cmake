# Flags of everything built here. Results must not depend on the target: no fused multiply-add and no
# reassociation of floats, in plain and in vector code alike.
add_library(tqcam_flags INTERFACE)
target_compile_options(tqcam_flags INTERFACE -ffp-contract=off -Wall -Wextra -Wshadow -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
if(TQCAM_SANITIZE)
  add_compile_options(-fsanitize=${TQCAM_SANITIZE} -fno-omit-frame-pointer)
  if(TQCAM_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
  add_link_options(-fsanitize=${TQCAM_SANITIZE})
endif()
if(TQCAM_BUILD_FUZZ)
  # The libraries need the coverage hooks; the targets themselves add the fuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
# The vector forms keep vectors in structures, which vectors without a fixed width can't be; such processors run
# the 128-bit forms.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm|riscv")
  target_compile_definitions(tqcam_flags INTERFACE
    "HWY_DISABLED_TARGETS=(HWY_SVE|HWY_SVE2|HWY_SVE_256|HWY_SVE2_128|HWY_RVV)")
endif()
