# Fails when the disassembly of FILE (an archive or an executable) holds an instruction
# that would make results differ between machines: a fused multiply-add (x86 FMA3 or
# FMA4, AArch64 fmadd/fmsub/fnmadd/fnmsub, fmla/fmls) or a reciprocal or reciprocal
# square-root estimate (rcpps, rsqrtps and their AVX-512 forms; frecpe, frsqrte and
# their Newton steps frecps, frsqrts). Usage:
#   cmake -DOBJDUMP=objdump -DFILE=liborvex_cbvm.a -P CheckNoFusedOps.cmake
if(NOT OBJDUMP OR NOT FILE)
  message(FATAL_ERROR "CheckNoFusedOps.cmake needs -DOBJDUMP= and -DFILE=")
endif()
execute_process(COMMAND ${OBJDUMP} -d --no-show-raw-insn ${FILE}
  OUTPUT_VARIABLE listing RESULT_VARIABLE result ERROR_VARIABLE errors)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "${OBJDUMP} -d ${FILE} failed: ${errors}")
endif()
string(LENGTH "${listing}" length)
if(length LESS 1000)
  message(FATAL_ERROR "${OBJDUMP} -d ${FILE} listed almost nothing: nothing was checked")
endif()
set(pattern "\t(v?f(n)?m(add|sub|addsub|subadd)[0-9]*[ps][sd]|fn?m(add|sub)|fml[as]|v?rcp(14|28)?[ps]s|v?rsqrt(14|28)?[ps]s|frecp[esx]|frsqrt[es])[ \t\n]")
string(REGEX MATCH "[^\n]*${pattern}[^\n]*" found "${listing}")
if(found)
  message(FATAL_ERROR "${FILE} holds an instruction that fuses or estimates (every unit must be compiled with -ffp-contract=off and use no estimate):\n  ${found}")
endif()
