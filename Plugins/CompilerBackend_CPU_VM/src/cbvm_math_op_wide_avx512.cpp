// The AVX-512 kernel set (compiled for AVX-512 only here; chosen at run time, cbvm_kernel_isa.h).

#include "cbvm_math_op_wide_float_kernels.h"
#include "cbvm_math_op_wide_int_kernels.h"
#include "simd/avx512/simd_vector.h"

namespace Orvex
{
	namespace MathOp
	{
		const FloatKernelTable g_FloatKernelsAvx512 = BuildWideFloatKernelTable<SIMD_AVX512::Float16>();
		const FnIntPacked g_IntKernelAvx512 = &TWideIntKernel<SIMD_AVX512::Float16>::Run;
		const FnIntRoute g_IntRouteAvx512 = &TWideIntKernel<SIMD_AVX512::Float16>::Route;
		const FloatModByConstantRow g_FloatModByConstantAvx512 = BuildWideModByConstantRow<SIMD_AVX512::Float16>();
	}
}
