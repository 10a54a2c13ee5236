/** Client of the Vorbel daemon: live values of a CAN bus over WebSocket. */
export { DEFAULT_PORT, toUrl, withoutPassword } from "./address.js";
export {
    Client,
    NotConnectedError,
    UnconfirmedError,
    type ClientOptions,
    type DeliverOptions,
    type SetOptions,
    type State,
    type Undecodable,
    type ValueStream,
    type WriteOptions,
} from "./client.js";
export { decodeValues, encodeValues, type NumericArray, type Value, type ValueMap } from "./codec.js";
export { assertSchema, checkSchema, checkText, parseSchema, type CheckOptions } from "./check.js";
export { justified } from "./digits.js";
export { type Level } from "./meaning.js";
export { Meanings, Meant } from "./meant.js";
export { type Limits, type Members } from "./members.js";
export { LastReadings } from "./readings.js";
export { type SchemaEvent } from "./ownership.js";
export { dotted, flatten, isMap, namesOf, nest, visit, type Path } from "./paths.js";
export { describeProblem, SchemaError, WriteError, type Problem, type ProblemCode } from "./problem.js";
export {
    bitsOf,
    defineSchema,
    FORMATS,
    isArranged,
    isScaled,
    leavesOf,
    parseJson,
    type Leaf,
    type LeafOptions,
    type Schema,
    type SchemaOf,
} from "./schema.js";
export { type Hello, type WebSocketConstructor, type WebSocketLike } from "./socket.js";
export {
    describeWritten,
    isRounded,
    prepareLeaf,
    prepareWrite,
    readingOf,
    readOnlyReason,
    withSelectors,
    writableRange,
    type Message,
    type Range,
    type Readings,
    type Written,
} from "./writing.js";
