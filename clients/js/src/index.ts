/** Client of the Vorbel daemon: live values of a CAN bus over WebSocket. */
export { DEFAULT_PORT, toUrl } from "./address.js";
export {
    Client,
    NotConnectedError,
    type ClientOptions,
    type Hello,
    type State,
    type Undecodable,
    type WebSocketConstructor,
    type WebSocketLike,
} from "./client.js";
export { decodeValues, encodeValues, type NumericArray, type Value, type ValueMap } from "./codec.js";
export { dotted, flatten, isMap, nest, visit, type Path } from "./paths.js";
export {
    assertSchema,
    checkSchema,
    describeProblem,
    FORMATS,
    leavesOf,
    parseJson,
    parseSchema,
    readOnlyReason,
    SchemaError,
    writableRange,
    type Leaf,
    type Problem,
    type Range,
    type Schema,
} from "./schema.js";
