// The AVX2 kernel set (compiled for AVX2 only here; chosen at run time, cbvm_kernel_isa.h).

#include "cbvm_math_op_wide_float_kernels.h"
#include "cbvm_math_op_wide_int_kernels.h"
#include "simd/avx2/simd_vector.h"

namespace Orvex
{
	namespace MathOp
	{
		const FloatKernelTable g_FloatKernelsAvx2 = BuildWideFloatKernelTable<SIMD_AVX2::Float8>();
		const FnIntPacked g_IntKernelAvx2 = &TWideIntKernel<SIMD_AVX2::Float8>::Run;
		const FnIntRoute g_IntRouteAvx2 = &TWideIntKernel<SIMD_AVX2::Float8>::Route;
		const FloatModByConstantRow g_FloatModByConstantAvx2 = BuildWideModByConstantRow<SIMD_AVX2::Float8>();
	}
}
