#pragma once
// The AArch64 (Advanced SIMD) implementation of the four-lane layer the VM kernels are
// written against: the same classes, operations and results as the SSE2 wrappers in
// simd/sse/simd_vector.h, which stay the reference. The kernels name the layer
// SIMD_SSE; on AArch64 that name is an alias of SIMD_NEON (at the end of this file), so
// one kernel source compiles for both architectures.
//
// Every result is the SSE2 result, bit for bit. AArch64 arithmetic differs from x86 in
// three places, each neutralised here where it can happen and nowhere else:
//   - an invalid operation without a NaN input (inf - inf, 0 * inf, 0 / 0) gives the
//     default NaN 0x7FC00000 on AArch64, 0xFFC00000 (sign set) on x86;
//   - with two NaN inputs x86 returns the first source's NaN, quieted, while AArch64
//     prefers a signalling NaN in either operand over a quiet one;
//   - a float -> int conversion of a NaN or an out-of-range value saturates on AArch64
//     (NaN -> 0) and gives 0x80000000 on x86.
// The fix-up of an arithmetic result costs a compare, a reduction and a predicted branch
// per vector; only a vector with a NaN lane takes the selects (see _X86Nan). Comparisons, bit operations and integer operations
// need none. No fused multiply-add (the build compiles every unit with
// -ffp-contract=off), no reciprocal or square-root estimates, and the rounding mode and
// flush-to-zero are the process's defaults (round to nearest, denormals kept), as
// MXCSR's are on x86.

#include "kr_assert.h"
#include "kr_base_types.h"

#include <cstdint>

#include <arm_neon.h>

namespace Orvex
{
	namespace SIMD_NEON
	{
		namespace Constants
		{
			alignas(16) inline constexpr u32 _Constant_Fp32_SignMasks[4] = {0x80000000u, 0x80000000u, 0x80000000u, 0x80000000u};
			alignas(16) inline constexpr u32 _Constant_Fp32_InvSignMasks[4] = {0x7FFFFFFFu, 0x7FFFFFFFu, 0x7FFFFFFFu, 0x7FFFFFFFu};
		}

		// The NaN x86 produces for an invalid operation without a NaN input.
		inline constexpr u32 kX86DefaultNan = 0xFFC00000u;
		// The bit that makes a signalling NaN quiet.
		inline constexpr u32 kQuietBit = 0x00400000u;

		inline OX_ALWAYS_INLINE float32x4_t _AsFloat(uint32x4_t v) { return vreinterpretq_f32_u32(v); }
		inline OX_ALWAYS_INLINE uint32x4_t _AsBits(float32x4_t v) { return vreinterpretq_u32_f32(v); }

		// The result x86 gives for a op b, from AArch64's result r of the same operation:
		// r itself where it is not a NaN; where it is, a's NaN quieted if a is a NaN, else
		// b's quieted if b is, else the x86 default NaN. Lanes without a NaN are left as
		// they are.
		inline float32x4_t _X86NanLanes(float32x4_t r, float32x4_t a, float32x4_t b)
		{
			const uint32x4_t quiet = vdupq_n_u32(kQuietBit);
			const uint32x4_t aOrdered = vceqq_f32(a, a);	// all ones where a is not a NaN
			const uint32x4_t bOrdered = vceqq_f32(b, b);
			const uint32x4_t rOrdered = vceqq_f32(r, r);
			const uint32x4_t fromB = vbslq_u32(bOrdered, vdupq_n_u32(kX86DefaultNan), vorrq_u32(_AsBits(b), quiet));
			const uint32x4_t nan = vbslq_u32(aOrdered, fromB, vorrq_u32(_AsBits(a), quiet));
			return _AsFloat(vbslq_u32(rOrdered, _AsBits(r), nan));
		}

		// _X86NanLanes for a vector with a NaN lane only: whether r has one is a compare and a
		// reduction, so a vector without (nearly every one) costs those and a predicted branch
		// instead of three compares, two ors and three selects.
		inline OX_ALWAYS_INLINE float32x4_t _X86Nan(float32x4_t r, float32x4_t a, float32x4_t b)
		{
			if (__builtin_expect(vminvq_u32(vceqq_f32(r, r)) != 0, 1))
				return r;
			return _X86NanLanes(r, a, b);
		}

		// x86's truncating conversion: 0x80000000 for a NaN and for every value whose
		// truncation does not fit in 32 bits; AArch64's fcvtzs saturates instead (and gives
		// 0 for a NaN). |v| < 2^31 is exactly the range that converts the same on both;
		// -2^31 itself converts to 0x80000000 either way.
		inline OX_ALWAYS_INLINE int32x4_t _X86ConvertTrunc(float32x4_t v)
		{
			const uint32x4_t inRange = vcaltq_f32(v, vdupq_n_f32(2147483648.0f));	// |v| < 2^31, false for a NaN
			return vreinterpretq_s32_u32(vbslq_u32(inRange, vreinterpretq_u32_s32(vcvtq_s32_f32(v)), vdupq_n_u32(0x80000000u)));
		}

		inline OX_ALWAYS_INLINE void _CheckAligned16(const void *p)
		{
			OX_ASSERT_ALIGNED16(p);
		}

		//----------------------------------------------------------------------------
		// Scalar: one float in lane 0. The upper lanes carry no meaning (the operations
		// run on all four, which costs the same as one).

		class Scalar
		{
		public:
			float32x4_t m_Value;

			Scalar() = default;
			explicit inline OX_ALWAYS_INLINE Scalar(float32x4_t value) : m_Value(value) {}
			explicit inline OX_ALWAYS_INLINE Scalar(float value) : m_Value(vsetq_lane_f32(value, vdupq_n_f32(0.0f), 0)) {}

			// ---- Loads and stores (32 bits, no alignment requirement)

			static inline OX_ALWAYS_INLINE Scalar Load(const void *p)
			{
				u32 bits;
				__builtin_memcpy(&bits, p, 4);
				return Scalar(_AsFloat(vsetq_lane_u32(bits, vdupq_n_u32(0), 0)));
			}
			inline OX_ALWAYS_INLINE void Store(void *p) const
			{
				const u32 bits = vgetq_lane_u32(_AsBits(m_Value), 0);
				__builtin_memcpy(p, &bits, 4);
			}

			// ---- Conversions and lane 0 access

			inline OX_ALWAYS_INLINE float ToFloat() const { return vgetq_lane_f32(m_Value, 0); }
			static inline OX_ALWAYS_INLINE Scalar FromInt(s32 value) { return Scalar(vreinterpretq_f32_s32(vsetq_lane_s32(value, vdupq_n_s32(0), 0))); }
			inline OX_ALWAYS_INLINE s32 ToInt() const { return vgetq_lane_s32(vreinterpretq_s32_f32(m_Value), 0); }
			inline OX_ALWAYS_INLINE u32 ToBits() const { return static_cast<u32>(ToInt()); }

			// ---- Arithmetic (IEEE, including the division; x86's NaNs)

			friend inline OX_ALWAYS_INLINE Scalar operator+(const Scalar &a, const Scalar &b) { return Scalar(_X86Nan(vaddq_f32(a.m_Value, b.m_Value), a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator-(const Scalar &a, const Scalar &b) { return Scalar(_X86Nan(vsubq_f32(a.m_Value, b.m_Value), a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator*(const Scalar &a, const Scalar &b) { return Scalar(_X86Nan(vmulq_f32(a.m_Value, b.m_Value), a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Scalar operator/(const Scalar &a, const Scalar &b) { return Scalar(_X86Nan(vdivq_f32(a.m_Value, b.m_Value), a.m_Value, b.m_Value)); }

			// ---- Comparisons: lane 0 becomes all ones or zero
			// Ordered, except != which is true when either side is NaN.

			friend inline OX_ALWAYS_INLINE Scalar operator<(const Scalar &a, const Scalar &b) { return Scalar(_AsFloat(vcltq_f32(a.m_Value, b.m_Value))); }
			friend inline OX_ALWAYS_INLINE Scalar operator<=(const Scalar &a, const Scalar &b) { return Scalar(_AsFloat(vcleq_f32(a.m_Value, b.m_Value))); }
			friend inline OX_ALWAYS_INLINE Scalar operator>(const Scalar &a, const Scalar &b) { return Scalar(_AsFloat(vcgtq_f32(a.m_Value, b.m_Value))); }
			friend inline OX_ALWAYS_INLINE Scalar operator>=(const Scalar &a, const Scalar &b) { return Scalar(_AsFloat(vcgeq_f32(a.m_Value, b.m_Value))); }
			friend inline OX_ALWAYS_INLINE Scalar operator==(const Scalar &a, const Scalar &b) { return Scalar(_AsFloat(vceqq_f32(a.m_Value, b.m_Value))); }
			friend inline OX_ALWAYS_INLINE Scalar operator!=(const Scalar &a, const Scalar &b) { return Scalar(_AsFloat(vmvnq_u32(vceqq_f32(a.m_Value, b.m_Value)))); }

			// ---- Bitwise

			friend inline OX_ALWAYS_INLINE Scalar operator&(const Scalar &a, const Scalar &b) { return Scalar(_AsFloat(vandq_u32(_AsBits(a.m_Value), _AsBits(b.m_Value)))); }
			friend inline OX_ALWAYS_INLINE Scalar operator|(const Scalar &a, const Scalar &b) { return Scalar(_AsFloat(vorrq_u32(_AsBits(a.m_Value), _AsBits(b.m_Value)))); }
			friend inline OX_ALWAYS_INLINE Scalar operator^(const Scalar &a, const Scalar &b) { return Scalar(_AsFloat(veorq_u32(_AsBits(a.m_Value), _AsBits(b.m_Value)))); }
			inline OX_ALWAYS_INLINE Scalar operator~() const { return Scalar(_AsFloat(vmvnq_u32(_AsBits(m_Value)))); }

			// ---- Integer arithmetic on lane 0 (wrapping)

			inline OX_ALWAYS_INLINE Scalar AddInt32(const Scalar &b) const { return Scalar(_AsFloat(vaddq_u32(_AsBits(m_Value), _AsBits(b.m_Value)))); }
			inline OX_ALWAYS_INLINE Scalar SubInt32(const Scalar &b) const { return Scalar(_AsFloat(vsubq_u32(_AsBits(m_Value), _AsBits(b.m_Value)))); }
		};

		static_assert(sizeof(Scalar) == 16, "Scalar is exactly one vector register");

		//----------------------------------------------------------------------------
		// Float4: four packed 32-bit lanes, floats or signed integers.

		class Float4
		{
		public:
			float32x4_t m_Value;

			Float4() = default;
			explicit inline OX_ALWAYS_INLINE Float4(float32x4_t value) : m_Value(value) {}
			explicit inline OX_ALWAYS_INLINE Float4(int32x4_t value) : m_Value(vreinterpretq_f32_s32(value)) {}
			explicit inline OX_ALWAYS_INLINE Float4(uint32x4_t value) : m_Value(vreinterpretq_f32_u32(value)) {}
			explicit inline OX_ALWAYS_INLINE Float4(float value) : m_Value(vdupq_n_f32(value)) {}
			// Broadcasts lane 0 of the scalar.
			explicit inline OX_ALWAYS_INLINE Float4(const Scalar &value) : m_Value(vdupq_laneq_f32(value.m_Value, 0)) {}

			static inline OX_ALWAYS_INLINE Float4 Zero() { return Float4(vdupq_n_f32(0.0f)); }
			static inline OX_ALWAYS_INLINE Float4 Set(float x, float y, float z, float w)
			{
				const float lanes[4] = {x, y, z, w};
				return Float4(vld1q_f32(lanes));
			}
			static inline OX_ALWAYS_INLINE Float4 SetInt(s32 x, s32 y, s32 z, s32 w)
			{
				const s32 lanes[4] = {x, y, z, w};
				return Float4(vld1q_s32(lanes));
			}
			static inline OX_ALWAYS_INLINE Float4 SplatInt(s32 value) { return Float4(vdupq_n_s32(value)); }

			inline OX_ALWAYS_INLINE int32x4_t AsInt() const { return vreinterpretq_s32_f32(m_Value); }
			inline OX_ALWAYS_INLINE uint32x4_t AsBits() const { return vreinterpretq_u32_f32(m_Value); }

			// ---- Loads and stores
			// Through the byte forms: like the SSE2 integer loads, they may alias anything.
			// The aligned forms report a misaligned pointer; on x86 the aligned access then
			// faults. AArch64 vector accesses take any address, so the process is stopped
			// here instead (a trap): a misaligned pointer ends the run on every machine,
			// right after the same report.

			static inline OX_ALWAYS_INLINE void _StopIfMisaligned(const void *p)
			{
				if (__builtin_expect((reinterpret_cast<std::uintptr_t>(p) & 15) != 0, 0))
					__builtin_trap();
			}

			static inline OX_ALWAYS_INLINE Float4 LoadAligned16(const void *p)
			{
				_CheckAligned16(p);
				_StopIfMisaligned(p);
				return LoadAligned16_Prechecked(p);
			}

			inline OX_ALWAYS_INLINE void StoreAligned16(void *p) const
			{
				_CheckAligned16(p);
				_StopIfMisaligned(p);
				StoreAligned16_Prechecked(p);
			}

			static inline OX_ALWAYS_INLINE Float4 LoadAligned16_Prechecked(const void *p)
			{
				return Float4(vreinterpretq_f32_u8(vld1q_u8(static_cast<const u8 *>(__builtin_assume_aligned(p, 16)))));
			}
			inline OX_ALWAYS_INLINE void StoreAligned16_Prechecked(void *p) const
			{
				vst1q_u8(static_cast<u8 *>(__builtin_assume_aligned(p, 16)), vreinterpretq_u8_f32(m_Value));
			}

			static inline OX_ALWAYS_INLINE Float4 LoadUnaligned(const void *p) { return Float4(vreinterpretq_f32_u8(vld1q_u8(static_cast<const u8 *>(p)))); }
			inline OX_ALWAYS_INLINE void StoreUnaligned(void *p) const { vst1q_u8(static_cast<u8 *>(p), vreinterpretq_u8_f32(m_Value)); }

			// Two lanes: 8 bytes in, lanes 2-3 zeroed.
			static inline OX_ALWAYS_INLINE Float4 LoadFloat2(const void *p)
			{
				const uint8x8_t xy = vld1_u8(static_cast<const u8 *>(p));
				return Float4(vreinterpretq_f32_u8(vcombine_u8(xy, vdup_n_u8(0))));
			}
			inline OX_ALWAYS_INLINE void StoreFloat2(void *p) const { vst1_u8(static_cast<u8 *>(p), vget_low_u8(vreinterpretq_u8_f32(m_Value))); }

			// Three lanes as 8 + 4 bytes: bytes 12..15 are never touched.
			static inline OX_ALWAYS_INLINE Float4 LoadFloat3(const void *p)
			{
				u32 z;
				__builtin_memcpy(&z, static_cast<const u8 *>(p) + 8, 4);
				const uint32x2_t xy = vreinterpret_u32_u8(vld1_u8(static_cast<const u8 *>(p)));
				return Float4(vcombine_u32(xy, vset_lane_u32(z, vdup_n_u32(0), 0)));	// x y z 0
			}

			inline OX_ALWAYS_INLINE void StoreFloat3(void *p) const
			{
				vst1_u8(static_cast<u8 *>(p), vget_low_u8(vreinterpretq_u8_f32(m_Value)));
				const u32 z = vgetq_lane_u32(AsBits(), 2);
				__builtin_memcpy(static_cast<u8 *>(p) + 8, &z, 4);
			}

			// ---- Lane access (slow path: tests, debugging)

			inline OX_ALWAYS_INLINE float Lane(int i) const
			{
				alignas(16) float lanes[4];
				vst1q_f32(lanes, m_Value);
				return lanes[i & 3];
			}

			inline OX_ALWAYS_INLINE s32 LaneInt(int i) const
			{
				alignas(16) s32 lanes[4];
				vst1q_s32(lanes, AsInt());
				return lanes[i & 3];
			}

			inline OX_ALWAYS_INLINE u32 LaneBits(int i) const { return static_cast<u32>(LaneInt(i)); }

			// ---- Swizzle: result lane 0 = lane a, lane 1 = lane b, ...

			template <int a, int b, int c, int d>
			inline OX_ALWAYS_INLINE Float4 Swizzle() const
			{
				static_assert(a >= 0 && a < 4 && b >= 0 && b < 4 && c >= 0 && c < 4 && d >= 0 && d < 4, "Swizzle lanes are 0..3");
				return Float4(__builtin_shufflevector(m_Value, m_Value, a, b, c, d));
			}

			// ---- Arithmetic (float lanes, IEEE, including the division; x86's NaNs)

			friend inline OX_ALWAYS_INLINE Float4 operator+(const Float4 &a, const Float4 &b) { return Float4(_X86Nan(vaddq_f32(a.m_Value, b.m_Value), a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator-(const Float4 &a, const Float4 &b) { return Float4(_X86Nan(vsubq_f32(a.m_Value, b.m_Value), a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator*(const Float4 &a, const Float4 &b) { return Float4(_X86Nan(vmulq_f32(a.m_Value, b.m_Value), a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator/(const Float4 &a, const Float4 &b) { return Float4(_X86Nan(vdivq_f32(a.m_Value, b.m_Value), a.m_Value, b.m_Value)); }

			// ---- Comparisons (float lanes): each lane all ones or zero
			// Ordered, except != which is true when either side is NaN.

			friend inline OX_ALWAYS_INLINE Float4 operator<(const Float4 &a, const Float4 &b) { return Float4(vcltq_f32(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator<=(const Float4 &a, const Float4 &b) { return Float4(vcleq_f32(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator>(const Float4 &a, const Float4 &b) { return Float4(vcgtq_f32(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator>=(const Float4 &a, const Float4 &b) { return Float4(vcgeq_f32(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator==(const Float4 &a, const Float4 &b) { return Float4(vceqq_f32(a.m_Value, b.m_Value)); }
			friend inline OX_ALWAYS_INLINE Float4 operator!=(const Float4 &a, const Float4 &b) { return Float4(vmvnq_u32(vceqq_f32(a.m_Value, b.m_Value))); }

			// ---- Bitwise

			friend inline OX_ALWAYS_INLINE Float4 operator&(const Float4 &a, const Float4 &b) { return Float4(vandq_u32(a.AsBits(), b.AsBits())); }
			friend inline OX_ALWAYS_INLINE Float4 operator|(const Float4 &a, const Float4 &b) { return Float4(vorrq_u32(a.AsBits(), b.AsBits())); }
			friend inline OX_ALWAYS_INLINE Float4 operator^(const Float4 &a, const Float4 &b) { return Float4(veorq_u32(a.AsBits(), b.AsBits())); }
			inline OX_ALWAYS_INLINE Float4 operator~() const { return Float4(vmvnq_u32(AsBits())); }
			// this & ~mask.
			inline OX_ALWAYS_INLINE Float4 AndNot(const Float4 &mask) const { return Float4(vbicq_u32(AsBits(), mask.AsBits())); }

			// ---- Integer arithmetic and comparisons (signed 32-bit lanes, wrapping)

			inline OX_ALWAYS_INLINE Float4 AddInt32(const Float4 &b) const { return Float4(vaddq_u32(AsBits(), b.AsBits())); }
			inline OX_ALWAYS_INLINE Float4 SubInt32(const Float4 &b) const { return Float4(vsubq_u32(AsBits(), b.AsBits())); }
			inline OX_ALWAYS_INLINE Float4 MulLoInt32(const Float4 &b) const { return Float4(vmulq_u32(AsBits(), b.AsBits())); }

			// High 32 bits of each signed / unsigned 64-bit product: the widening multiplies
			// of the low and high halves, then the odd 32-bit words of the eight results.
			inline OX_ALWAYS_INLINE Float4 MulHiInt32(const Float4 &b) const
			{
				const int64x2_t low = vmull_s32(vget_low_s32(AsInt()), vget_low_s32(b.AsInt()));
				const int64x2_t high = vmull_high_s32(AsInt(), b.AsInt());
				return Float4(vuzp2q_s32(vreinterpretq_s32_s64(low), vreinterpretq_s32_s64(high)));
			}

			inline OX_ALWAYS_INLINE Float4 MulHiUInt32(const Float4 &b) const
			{
				const uint64x2_t low = vmull_u32(vget_low_u32(AsBits()), vget_low_u32(b.AsBits()));
				const uint64x2_t high = vmull_high_u32(AsBits(), b.AsBits());
				return Float4(vuzp2q_u32(vreinterpretq_u32_u64(low), vreinterpretq_u32_u64(high)));
			}

			// a / b per lane through double precision, truncated toward zero, as the SSE2
			// form: where the quotient does not fit (b == 0, INT_MIN / -1) x86 gives
			// 0x80000000, which the conversion below reproduces instead of saturating.
			inline OX_ALWAYS_INLINE Float4 QuotientInt32ThroughDouble(const Float4 &b) const
			{
				const float64x2_t low = vdivq_f64(vcvtq_f64_s64(vmovl_s32(vget_low_s32(AsInt()))), vcvtq_f64_s64(vmovl_s32(vget_low_s32(b.AsInt()))));
				const float64x2_t high = vdivq_f64(vcvtq_f64_s64(vmovl_high_s32(AsInt())), vcvtq_f64_s64(vmovl_high_s32(b.AsInt())));
				const float64x2_t limit = vdupq_n_f64(2147483648.0);
				// |q| < 2^31 converts alike on both architectures; anything else (NaN included) is 0x80000000.
				const uint64x2_t lowIn = vcaltq_f64(low, limit), highIn = vcaltq_f64(high, limit);
				const int32x4_t q = vcombine_s32(vmovn_s64(vcvtq_s64_f64(low)), vmovn_s64(vcvtq_s64_f64(high)));
				const uint32x4_t in = vcombine_u32(vmovn_u64(lowIn), vmovn_u64(highIn));
				return Float4(vbslq_u32(in, vreinterpretq_u32_s32(q), vdupq_n_u32(0x80000000u)));
			}

			inline OX_ALWAYS_INLINE Float4 CmpEqInt32(const Float4 &b) const { return Float4(vceqq_s32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float4 CmpLtInt32(const Float4 &b) const { return Float4(vcltq_s32(AsInt(), b.AsInt())); }
			inline OX_ALWAYS_INLINE Float4 CmpGtInt32(const Float4 &b) const { return Float4(vcgtq_s32(AsInt(), b.AsInt())); }

			// ---- Shifts by one count for all lanes
			// x86 takes the whole count and shifts everything out past 31 (0, or the sign
			// fill); the AArch64 register shift reads only the count's low byte, as a signed
			// number. A count past 31 is therefore given as 32, which shifts everything out
			// in the same way. That is the behaviour kept when the assertion is not fatal.

			static constexpr bool ShiftCountInRange(u32 bits) { return bits <= 31; }
			static inline OX_ALWAYS_INLINE s32 _ShiftCount(u32 bits) { return bits > 32 ? 32 : s32(bits); }

			inline OX_ALWAYS_INLINE Float4 ShiftLeftInt32(u32 bits) const
			{
				OX_ASSERT_TEXT(ShiftCountInRange(bits), "bits <= 31");
				return Float4(vshlq_u32(AsBits(), vdupq_n_s32(_ShiftCount(bits))));
			}

			inline OX_ALWAYS_INLINE Float4 ShiftRightArithInt32(u32 bits) const
			{
				OX_ASSERT_TEXT(ShiftCountInRange(bits), "bits <= 31");
				return Float4(vshlq_s32(AsInt(), vdupq_n_s32(-_ShiftCount(bits))));
			}

			inline OX_ALWAYS_INLINE Float4 ShiftRightLogicalInt32(u32 bits) const
			{
				OX_ASSERT_TEXT(ShiftCountInRange(bits), "bits <= 31");
				return Float4(vshlq_u32(AsBits(), vdupq_n_s32(-_ShiftCount(bits))));
			}

			// The same shifts without the check, for loops that checked their count
			// (bits <= 31) once before starting.
			inline OX_ALWAYS_INLINE Float4 ShiftLeftInt32_Prechecked(u32 bits) const { return Float4(vshlq_u32(AsBits(), vdupq_n_s32(s32(bits)))); }
			inline OX_ALWAYS_INLINE Float4 ShiftRightArithInt32_Prechecked(u32 bits) const { return Float4(vshlq_s32(AsInt(), vdupq_n_s32(-s32(bits)))); }
			inline OX_ALWAYS_INLINE Float4 ShiftRightLogicalInt32_Prechecked(u32 bits) const { return Float4(vshlq_u32(AsBits(), vdupq_n_s32(-s32(bits)))); }

			// ---- Conversions

			// Truncates toward zero; NaN and out-of-range lanes give 0x80000000 (x86's value).
			inline OX_ALWAYS_INLINE Float4 ConvertToInt32Trunc() const { return Float4(_X86ConvertTrunc(m_Value)); }
			inline OX_ALWAYS_INLINE Float4 ConvertInt32ToFloat() const { return Float4(vcvtq_f32_s32(AsInt())); }
		};

		static_assert(sizeof(Float4) == 16, "Float4 is exactly one vector register");

		//----------------------------------------------------------------------------
		// Checking a loop's pointers once, before the loop (as in the SSE2 layer).

		template <std::uintptr_t _Alignment>
		inline bool _AreAligned(const void *a, const void *b = nullptr, const void *c = nullptr)
		{
			static_assert((_Alignment & (_Alignment - 1)) == 0, "a power of two");
			return ((reinterpret_cast<std::uintptr_t>(a) | reinterpret_cast<std::uintptr_t>(b) | reinterpret_cast<std::uintptr_t>(c)) & (_Alignment - 1)) == 0;
		}

		template <bool _Prechecked>
		struct TAlignedAccess
		{
			static constexpr bool kPrechecked = _Prechecked;

			static inline OX_ALWAYS_INLINE Float4 Load(const void *p)
			{
				if constexpr (_Prechecked)
					return Float4::LoadAligned16_Prechecked(p);
				else
					return Float4::LoadAligned16(p);
			}

			static inline OX_ALWAYS_INLINE void Store(void *p, const Float4 &value)
			{
				if constexpr (_Prechecked)
					value.StoreAligned16_Prechecked(p);
				else
					value.StoreAligned16(p);
			}
		};
	}

	// The kernels are written against SIMD_SSE (the reference layer); on AArch64 that is
	// this one.
	namespace SIMD_SSE = SIMD_NEON;
}
