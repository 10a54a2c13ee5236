import { connect, createServer, type AddressInfo, type Server, type Socket } from "node:net";

/** A network between client and daemon that can stall: nothing moves in it, and nothing ends. */
export class Network {
    readonly #server: Server;
    readonly #ends = new Set<Socket>();
    #stalled = false;
    /** How many connections were made through it. */
    connections = 0;
    /** How connections from the client's side ended: "end", or the code of an error. */
    readonly ends: string[] = [];

    private constructor(server: Server) {
        this.#server = server;
        server.on("connection", (client) => this.#join(client));
    }

    static async open(): Promise<Network> {
        const server = createServer({ allowHalfOpen: true });
        await new Promise<void>((listening) => server.listen(0, "127.0.0.1", listening));
        return new Network(server);
    }

    get address(): string {
        return `127.0.0.1:${(this.#server.address() as AddressInfo).port}`;
    }

    stall(): void {
        this.#stalled = true;
        for (const end of this.#ends) end.pause();
    }

    resume(): void {
        this.#stalled = false;
        for (const end of this.#ends) end.resume();
    }

    /** Ends all connections at once. */
    cut(): void {
        for (const end of this.#ends) end.destroy();
    }

    close(): void {
        this.cut();
        this.#server.close();
    }

    #join(client: Socket): void {
        this.connections++;
        const daemon = connect({ port: 10443, host: "127.0.0.1", allowHalfOpen: true });
        this.#forward(client, daemon);
        this.#forward(daemon, client);
        client.on("end", () => this.ends.push("end"));
        client.on("error", (error: NodeJS.ErrnoException) => this.ends.push(error.code!));
    }

    #forward(from: Socket, to: Socket): void {
        this.#ends.add(from);
        from.on("data", (data) => to.write(data));
        from.on("end", () => to.end());
        from.on("error", () => to.destroy());
        from.on("close", () => this.#ends.delete(from));
        if (this.#stalled) from.pause();
    }
}
