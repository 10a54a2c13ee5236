import { Decoder, Encoder, ExtensionCodec } from "@msgpack/msgpack";
import { isMap } from "./paths.js";

/** Readings that the daemon gathered ("@flushSize"); the type follows the leaf's format and factor. */
export type NumericArray = Int8Array | Uint8Array | Int16Array | Uint16Array | Int32Array | Uint32Array | Float32Array;

/**
 * What a message holds: maps named as in the schema, with values at the leaves. 64-bit integers, which only a
 * leaf of format "p" can yield, arrive as bigint.
 */
export type Value = null | boolean | number | bigint | string | NumericArray | Value[] | ValueMap;
export type ValueMap = { [name: string]: Value };

type NumericArrayType = {
    new (buffer: ArrayBuffer): NumericArray;
    readonly BYTES_PER_ELEMENT: number;
};

/** The daemon's extension types, each a little-endian array without a header. */
const arrayTypes: ReadonlyMap<number, NumericArrayType> = new Map<number, NumericArrayType>([
    [17, Int8Array],
    [18, Uint8Array],
    [19, Int16Array],
    [20, Uint16Array],
    [21, Int32Array],
    [22, Uint32Array],
    [23, Float32Array],
]);

const hostIsLittleEndian = new Uint8Array(new Uint16Array([1]).buffer)[0] === 1;

/** A copy, because the payload of a message lies at any alignment. */
function toNumericArray(payload: Uint8Array, type: NumericArrayType, number: number): NumericArray {
    const width = type.BYTES_PER_ELEMENT;
    if (payload.length % width !== 0) {
        throw new RangeError(`extension type ${number} holds ${payload.length} bytes, not a multiple of ${width}`);
    }
    const bytes = payload.slice();
    if (!hostIsLittleEndian) {
        for (let at = 0; at < bytes.length; at += width) bytes.subarray(at, at + width).reverse();
    }
    return new type(bytes.buffer);
}

const extensions = new ExtensionCodec();
for (const [number, type] of arrayTypes) {
    extensions.register({
        type: number,
        encode: () => null,
        decode: (payload) => toNumericArray(payload, type, number),
    });
}

const decoder = new Decoder({ extensionCodec: extensions, useBigInt64: true });

/** A name like any other, but the codec refuses it: assigned to an object, it would exchange its prototype. */
const PROTO = "__proto__";
/** What stands for it until it can be defined instead. */
const STAND_IN = "\0name\0__proto__";

const standInDecoder = new Decoder({
    extensionCodec: extensions,
    useBigInt64: true,
    keyDecoder: {
        canBeCached: (length) => length === PROTO.length,
        decode: (bytes, at, length) => {
            const name = new TextDecoder().decode(bytes.subarray(at, at + length));
            return name === PROTO ? STAND_IN : name;
        },
    },
});

function withProto(value: Value): Value {
    if (Array.isArray(value)) return value.map(withProto);
    if (!isMap(value)) return value;
    const members = Object.entries(value).map(([name, member]) => [
        name === STAND_IN ? PROTO : name,
        withProto(member),
    ]);
    return Object.fromEntries(members) as ValueMap;
}

/**
 * Decodes one binary message. Throws an Error on bytes that are no complete MessagePack value: the daemon sends
 * such a message when a leaf gathers an array in format "c", whose name goes out without its value.
 */
export function decodeValues(message: Uint8Array): Value {
    try {
        return decoder.decode(message) as Value;
    } catch (error) {
        if (!(error as Error).message.includes(PROTO)) throw error;
        return withProto(standInDecoder.decode(message) as Value);
    }
}

/** The daemon skips extension values, so a typed array sent to it would vanish, or pass for its neighbour. */
const refuseNumericArrays = {
    tryToEncode(object: unknown): null {
        if (ArrayBuffer.isView(object) && !(object instanceof Uint8Array)) {
            throw new TypeError(`The daemon takes no typed arrays, and a ${object.constructor.name} was to be written`);
        }
        return null;
    },
    decode: extensions.decode.bind(extensions),
};

/** As deep as schemas can be, and the value. */
const DEPTH = 1025;

const encoder = new Encoder({ extensionCodec: refuseNumericArrays, useBigInt64: true, maxDepth: DEPTH });

/**
 * Encodes values for the daemon, which converts each by its leaf's format: whole numbers of up to 32 bits as
 * integers, other numbers as float 64, bigint as 64-bit integers.
 */
export function encodeValues(values: ValueMap): Uint8Array {
    return encoder.encode(values);
}
