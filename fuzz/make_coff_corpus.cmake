# Builds the seed corpus of the COFF reader fuzzer:
#   cmake -DMKCOF=<mkcof> -DSHARED=<shared/coff folder> -DOUT=<corpus folder> -P make_coff_corpus.cmake
# Takes the real TI files when the shared folder is there, and adds images
# written by mkcof in both byte orders.
file(MAKE_DIRECTORY ${OUT})

if(EXISTS ${SHARED})
  file(GLOB real_files ${SHARED}/*)
  foreach(f ${real_files})
    if(NOT f MATCHES "\\.(json|md)$")
      file(COPY ${f} DESTINATION ${OUT})
    endif()
  endforeach()
else()
  message(STATUS "No shared COFF files at ${SHARED}; seeds from mkcof only")
endif()

function(mkcof name)
  execute_process(COMMAND ${MKCOF} -o ${OUT}/${name} ${ARGN} RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "mkcof failed for ${name}")
  endif()
endfunction()

mkcof(versioned_le.cof --version 1.2 --code-bytes 2000)
mkcof(versioned_be.cof --big-endian --version 3.4 --code-bytes 900)
mkcof(no_opt_header.cof --no-opt-header --section .text:0x80000000=pattern:0x5A:1640
      --section .bss:0x1000=bss:256 --section .switch:0:copy=hex:)
mkcof(mixed_be.cof --big-endian --no-opt-header
      --section .vectors:0:0xA20=pattern:1:512
      --section .debug_info:0:copy=pattern:2:300
      --section .info:0x10:data=hex:0011223344556677
      --section .far:scratch1:0:0x810=pattern:3:0
      --section .stack:0x2000=bss:4096
      --section .sysmem:0x3000:noload=pattern:4:64
      --section .dsect:0x4000:dsect=pattern:5:8)
mkcof(single_byte.cof --section .c:1=hex:FF)
mkcof(long_names.cof --version 9.1 --section .debug_abbreviations:0:copy=pattern:6:40
      --section .far_constant_data:0x5000:data=pattern:7:100)
mkcof(many_sections_be.cof --big-endian --section .a:0x100=pattern:1:30 --section .b:0x200=bss:64
      --section .c:0x300:data=hex:0102 --section .d:0:copy=pattern:2:9 --section .e:0x400=pattern:3:821
      --section .f:0x900:noload=pattern:4:16 --section .g:0xA00:dsect=pattern:5:16)
