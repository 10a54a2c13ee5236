/**
 * Decimal numbers as files write them. What is calculated with them has 28 digits, a half going to the even one, and so
 * is the same number to the last digit as in the terminal tool.
 */

const PRECISION = 28;
/** Characters of a number: nobody writes more, and calculating with many takes long. */
const LONGEST = 1000;

export class Decimal {
    private constructor(
        readonly isNegative: boolean,
        /** Without a sign. */
        readonly digits: bigint,
        readonly exponent: number,
    ) {}

    /** Undefined for what is no number. */
    static parse(text: string): Decimal | undefined {
        if (text.length > LONGEST) return undefined;
        const [, sign, whole = "", fraction = "", power = "0"] =
            /^([+-]?)(?=\.?\d)(\d*)\.?(\d*)(?:[eE]([+-]?\d{1,15}))?$/.exec(text) ?? [];
        if (sign === undefined) return undefined;
        return new Decimal(sign === "-", BigInt(whole + fraction), Number(power) - fraction.length);
    }

    /** With the digits that tell a finite number of double precision from all others. */
    static ofNumber(number: number): Decimal {
        return Decimal.parse(String(number))!;
    }

    static of(whole: bigint): Decimal {
        return Decimal.#signed(whole, 0);
    }

    static #signed(number: bigint, exponent: number): Decimal {
        return number < 0n ? new Decimal(true, -number, exponent) : new Decimal(false, number, exponent);
    }

    get isZero(): boolean {
        return this.digits === 0n;
    }

    times(other: Decimal): Decimal {
        const isNegative = this.isNegative !== other.isNegative;
        return new Decimal(isNegative, this.digits * other.digits, this.exponent + other.exponent).#rounded();
    }

    plus(other: Decimal): Decimal {
        if (this.isZero) return other.#rounded();
        if (other.isZero) return this.#rounded();
        return this.#place < other.#place ? other.#plusLesser(this) : this.#plusLesser(other);
    }

    /** Below 0 if this is the lesser one, 0 if the two are equal. */
    compare(other: Decimal): number {
        if (this.isZero || other.isZero || this.isNegative !== other.isNegative) return this.#sign - other.#sign;
        if (this.#place !== other.#place) return this.#sign * (this.#place - other.#place);
        const least = Math.min(this.exponent, other.exponent);
        const difference = this.#inUnits(least) - other.#inUnits(least);
        return difference < 0n ? -1 : Number(difference > 0n);
    }

    /** The nearest number of double precision. */
    toNumber(): number {
        return Number(`${this.isNegative ? "-" : ""}${this.digits}e${this.exponent}`) + 0; // which is what -0 becomes
    }

    /** As it was written, without the zeros in front; with an exponent if it is far from 1. */
    toString(): string {
        const sign = this.isNegative ? "-" : "";
        const digits = String(this.digits);
        const place = this.exponent + digits.length - 1;
        if (this.exponent <= 0 && place >= -6) return sign + withPoint(digits, -this.exponent);
        return `${sign}${withPoint(digits, digits.length - 1)}E${place < 0 ? "" : "+"}${place}`;
    }

    /** With the digits that it needs, and an exponent only if it is no whole number of so many digits. */
    toShortText(longest: number): string {
        const [digits, zeros] = /^(\d*?)(0*)$/.exec(String(this.digits))!.slice(1) as [string, string];
        if (digits === "") return "0";
        const exponent = this.exponent + zeros.length;
        const sign = this.isNegative ? "-" : "";
        const isShort = exponent >= 0 && digits.length + exponent <= longest;
        if (isShort) return `${sign}${digits}${"0".repeat(exponent)}`;
        return new Decimal(this.isNegative, BigInt(digits), exponent).toString();
    }

    get #sign(): number {
        return this.isZero ? 0 : this.isNegative ? -1 : 1;
    }

    /** The power of ten of the first digit. */
    get #place(): number {
        return this.exponent + String(this.digits).length - 1;
    }

    #inUnits(exponent: number): bigint {
        const digits = this.digits * 10n ** BigInt(this.exponent - exponent);
        return this.isNegative ? -digits : digits;
    }

    #plusLesser(other: Decimal): Decimal {
        // What is beyond all digits of the result only tells on which side of a half it is.
        const seen = Math.min(this.exponent, this.#place - PRECISION) - 2;
        const lesser = other.#place < seen ? new Decimal(other.isNegative, 1n, seen) : other;
        const exponent = Math.min(this.exponent, lesser.exponent);
        return Decimal.#signed(this.#inUnits(exponent) + lesser.#inUnits(exponent), exponent).#rounded();
    }

    #rounded(): Decimal {
        const surplus = String(this.digits).length - PRECISION;
        if (surplus <= 0) return this;
        const unit = 10n ** BigInt(surplus);
        const [kept, rest] = [this.digits / unit, 2n * (this.digits % unit)];
        const isUp = rest > unit || (rest === unit && kept % 2n === 1n);
        return new Decimal(this.isNegative, isUp ? kept + 1n : kept, this.exponent + surplus);
    }
}

function withPoint(digits: string, decimals: number): string {
    if (decimals === 0) return digits;
    const padded = digits.padStart(decimals + 1, "0");
    return `${padded.slice(0, -decimals)}.${padded.slice(-decimals)}`;
}
