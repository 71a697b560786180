import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import java.util.Queue;
import java.util.concurrent.BlockingQueue;
import java.util.concurrent.CompletableFuture;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;
import java.util.concurrent.LinkedBlockingQueue;
import java.util.concurrent.Semaphore;
import java.util.concurrent.TimeUnit;
import java.util.function.Predicate;

import org.apache.curator.drivers.AdvancedTracerDriver;
import org.apache.curator.drivers.EventTrace;
import org.apache.curator.drivers.OperationTrace;
import org.apache.curator.framework.CuratorFramework;
import org.apache.curator.framework.CuratorFrameworkFactory;
import org.apache.curator.framework.recipes.leader.LeaderLatch;
import org.apache.curator.framework.recipes.leader.LeaderLatchListener;
import org.apache.curator.framework.recipes.leader.LeaderSelector;
import org.apache.curator.framework.recipes.leader.LeaderSelectorListenerAdapter;
import org.apache.curator.retry.ExponentialBackoffRetry;

/**
 * Times handovers between candidates that use Curator (ZooKeeper, Java). Started by curator_driver.
 *
 * Every candidate has a CuratorFramework of its own. A handover lasts from just before the leader leaves
 * (--recipe=latch: LeaderLatch.close is called; --recipe=selector: takeLeadership returns) to the beginning of the next
 * leader's isLeader or takeLeadership. A latch tells its listener on the thread on which the news came.
 *
 * A closed LeaderLatch is of no further use: whoever left joins again with a new one, in the session that it has.
 */
public final class CuratorDriver
{
    private static final long PATIENCE_SECONDS = 60;
    private static final int CONNECT_SECONDS = 15;
    private static final long END_SECONDS = 20;
    private static final long CLOSE_SECONDS = 10;

    /** Ends the driver with status 1 and one line on stderr. */
    private static final class Trouble extends Exception
    {
        Trouble(String reason)
        {
            super(reason);
        }
    }

    /** A signal asks the driver to leave. */
    private static final class Ended extends Exception
    {
    }

    private sealed interface Event permits Line, Leading, Queued, Failed, Signalled
    {
    }

    private record Line(String text) implements Event
    {
    }

    private record Leading(Candidate candidate, long since) implements Event
    {
    }

    /** The candidate's node is in the queue, and the one before it is watched. */
    private record Queued(Candidate candidate) implements Event
    {
    }

    private record Failed(String reason) implements Event
    {
    }

    private record Signalled() implements Event
    {
    }

    private record Options(String servers, String election, int candidates, int sessionTimeout, boolean standby,
                           String recipe)
    {
        static Options parse(String[] arguments) throws Trouble
        {
            final Map<String, String> values = new HashMap<>(Map.of(
                "--candidates", "1", "--session-timeout", "10000", "--standby", "no"));
            final List<String> known = List.of(
                "--servers", "--election", "--candidates", "--session-timeout", "--standby", "--recipe");
            for (final String argument : arguments)
            {
                final String[] parts = argument.equals("--standby") ? new String[] {argument, "yes"}
                                                                    : argument.split("=", 2);
                if (parts.length != 2 || !known.contains(parts[0]))
                {
                    throw new Trouble("there is no option " + argument);
                }
                values.put(parts[0], parts[1]);
            }
            for (final String name : known)
            {
                if (!values.containsKey(name))
                {
                    throw new Trouble(name + " is needed");
                }
            }
            final Options options = new Options(
                values.get("--servers"), values.get("--election"), positive(values, "--candidates"),
                positive(values, "--session-timeout"), values.get("--standby").equals("yes"), values.get("--recipe"));
            if (options.standby && options.candidates != 1)
            {
                throw new Trouble("--standby goes with --candidates=1");
            }
            if (!List.of("latch", "selector").contains(options.recipe))
            {
                throw new Trouble("--recipe is latch or selector");
            }
            return options;
        }

        private static int positive(Map<String, String> values, String name) throws Trouble
        {
            try
            {
                final int value = Integer.parseInt(values.get(name));
                if (value > 0)
                {
                    return value;
                }
            }
            catch (NumberFormatException notANumber)
            {
                // Said below.
            }
            throw new Trouble(name + " has to be a positive number");
        }
    }

    /** Stands for election whenever it is told to, with a session that it keeps. */
    private abstract static class Candidate
    {
        final String name;
        final String election;
        final CuratorFramework client;
        final BlockingQueue<Event> events;
        volatile boolean ends = false;

        Candidate(int index, Options options, BlockingQueue<Event> events)
        {
            this.name = "candidate " + index;
            this.election = options.election();
            this.events = events;
            this.client = CuratorFrameworkFactory.builder()
                              .connectString(options.servers())
                              .sessionTimeoutMs(options.sessionTimeout())
                              .connectionTimeoutMs(options.sessionTimeout())
                              .retryPolicy(new ExponentialBackoffRetry(100, 3))
                              .build();
            client.getZookeeperClient().setTracerDriver(new WatchTracer(this));
        }

        void connect() throws Trouble, InterruptedException
        {
            client.start();
            if (!client.blockUntilConnected(CONNECT_SECONDS, TimeUnit.SECONDS))
            {
                throw new Trouble(name + ": no server answers within " + CONNECT_SECONDS + " s");
            }
        }

        abstract void stand() throws Exception;

        abstract void leave() throws Exception;

        /** When it left, by the monotonic clock; set as soon as the next one leads. */
        abstract long left();

        abstract void withdraw() throws Exception;

        void lost()
        {
            if (!ends)
            {
                events.add(new Failed(name + " has lost its leadership"));
            }
        }
    }

    private static final class LatchCandidate extends Candidate
    {
        private LeaderLatch latch;
        private long left;

        LatchCandidate(int index, Options options, BlockingQueue<Event> events)
        {
            super(index, options, events);
        }

        @Override void stand() throws Exception
        {
            latch = new LeaderLatch(client, election, name);
            latch.addListener(new LeaderLatchListener() {
                @Override public void isLeader()
                {
                    final long since = System.nanoTime();
                    events.add(new Leading(LatchCandidate.this, since));
                }

                /** Not called for a latch that is closed. */
                @Override public void notLeader()
                {
                    lost();
                }
            });
            latch.start();
        }

        @Override void leave() throws IOException
        {
            left = System.nanoTime();
            latch.close();
        }

        @Override long left()
        {
            return left;
        }

        @Override void withdraw() throws IOException
        {
            if (latch != null && latch.getState() == LeaderLatch.State.STARTED)
            {
                latch.close();
            }
        }
    }

    private static final class SelectorCandidate extends Candidate
    {
        private final LeaderSelector selector;
        private final ExecutorService leading = Executors.newSingleThreadExecutor();
        private final Semaphore toldToLeave = new Semaphore(0);
        private volatile long left;
        private boolean started = false;

        SelectorCandidate(int index, Options options, BlockingQueue<Event> events)
        {
            super(index, options, events);
            selector = new LeaderSelector(client, election, leading, new LeaderSelectorListenerAdapter() {
                @Override public void takeLeadership(CuratorFramework unused)
                {
                    final long since = System.nanoTime();
                    events.add(new Leading(SelectorCandidate.this, since));
                    try
                    {
                        toldToLeave.acquire();
                    }
                    catch (InterruptedException interrupted)
                    {
                        lost();
                    }
                    left = System.nanoTime();
                }
            });
            selector.setId(name);
        }

        @Override void stand() throws Exception
        {
            if (!started)
            {
                started = true;
                selector.start();
                return;
            }
            final long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(PATIENCE_SECONDS);
            // Refused until the last turn has been cleared up.
            while (!selector.requeue())
            {
                if (System.nanoTime() > deadline)
                {
                    throw new Trouble(name + " cannot join again");
                }
                TimeUnit.MICROSECONDS.sleep(100);
            }
        }

        @Override void leave()
        {
            toldToLeave.release();
        }

        @Override long left()
        {
            return left;
        }

        @Override void withdraw() throws InterruptedException
        {
            if (started)
            {
                selector.close();
            }
            // Its node is gone only then.
            leading.shutdown();
            leading.awaitTermination(END_SECONDS, TimeUnit.SECONDS);
        }
    }

    /** Tells when the recipe has put its watch, which is the last thing that it does before it waits. */
    private static final class WatchTracer extends AdvancedTracerDriver
    {
        private final Candidate candidate;

        WatchTracer(Candidate candidate)
        {
            this.candidate = candidate;
        }

        @Override public void addTrace(OperationTrace trace)
        {
            if (trace.isWithWatcher() && trace.getReturnCode() == 0 && trace.getPath() != null
                && trace.getPath().startsWith(candidate.election + "/"))
            {
                candidate.events.add(new Queued(candidate));
            }
        }

        @Override public void addEvent(EventTrace trace)
        {
        }
    }

    private final Options options;
    private final BlockingQueue<Event> events = new LinkedBlockingQueue<>();
    private final Queue<String> lines = new ArrayDeque<>();
    private final List<Candidate> candidates = new ArrayList<>();
    private Candidate leader;

    private CuratorDriver(Options options)
    {
        this.options = options;
        for (int index = 0; index < options.candidates(); ++index)
        {
            candidates.add(options.recipe().equals("latch") ? new LatchCandidate(index, options, events)
                                                            : new SelectorCandidate(index, options, events));
        }
    }

    private void run() throws Exception
    {
        final Thread reader = new Thread(this::read, "stdin");
        reader.setDaemon(true);
        reader.start();
        try
        {
            start();
            System.out.println("ready");
            serve();
        }
        finally
        {
            end();
        }
    }

    private void start() throws Exception
    {
        for (final Candidate candidate : candidates)
        {
            candidate.connect();
            candidate.stand();
            if (options.standby())
            {
                return;
            }
            if (leader == null)
            {
                leader = awaitLeading().candidate();
            }
            else
            {
                awaitQueued(candidate);
            }
        }
    }

    private void serve() throws Exception
    {
        for (String line = nextLine(); !line.equals("quit"); line = nextLine())
        {
            if (!line.equals("handover"))
            {
                throw new Trouble("there is no command '" + line + "'");
            }
            System.out.println("handover " + handOver());
        }
    }

    private long handOver() throws Exception
    {
        if (candidates.size() < 2)
        {
            throw new Trouble("a handover takes two candidates");
        }
        final Candidate before = leader;
        before.leave();
        final Leading now = awaitLeading();
        final long duration = now.since() - before.left();
        before.stand();
        awaitQueued(before);
        leader = now.candidate();
        return duration;
    }

    private Leading awaitLeading() throws Exception
    {
        return (Leading) await(event -> event instanceof Leading, "no candidate leads");
    }

    private void awaitQueued(Candidate candidate) throws Exception
    {
        await(new Queued(candidate)::equals, candidate.name + " is not queued");
    }

    private Event await(Predicate<Event> isIt, String otherwise) throws Exception
    {
        final long deadline = System.nanoTime() + TimeUnit.SECONDS.toNanos(PATIENCE_SECONDS);
        while (true)
        {
            final Event event = checked(events.poll(deadline - System.nanoTime(), TimeUnit.NANOSECONDS));
            if (event == null)
            {
                throw new Trouble(otherwise + " after " + PATIENCE_SECONDS + " s");
            }
            if (event instanceof Line line)
            {
                lines.add(line.text());
            }
            else if (isIt.test(event))
            {
                return event;
            }
        }
    }

    private String nextLine() throws Exception
    {
        while (lines.isEmpty())
        {
            final Event event = checked(events.take());
            if (event instanceof Line line)
            {
                lines.add(line.text());
            }
            else if (event instanceof Leading leading && options.standby())
            {
                System.out.println("leading " + leading.since());
            }
        }
        return lines.remove();
    }

    private static Event checked(Event event) throws Trouble, Ended
    {
        if (event instanceof Signalled)
        {
            throw new Ended();
        }
        if (event instanceof Failed failed)
        {
            throw new Trouble(failed.reason());
        }
        return event;
    }

    private void read()
    {
        try (BufferedReader input = new BufferedReader(new InputStreamReader(System.in)))
        {
            for (String line = input.readLine(); line != null; line = input.readLine())
            {
                events.add(new Line(line.strip()));
            }
            events.add(new Line("quit"));
        }
        catch (IOException broken)
        {
            events.add(new Failed("stdin: " + broken.getMessage()));
        }
    }

    /** Those that wait go before the one that leads, so that nobody becomes leader on the way out. */
    private void end() throws Exception
    {
        candidates.forEach(candidate -> candidate.ends = true);
        final Thread deadline = new Thread(CuratorDriver::haltLate, "deadline");
        deadline.setDaemon(true);
        deadline.start();
        for (final Candidate candidate : candidates)
        {
            if (candidate != leader)
            {
                candidate.withdraw();
            }
        }
        if (leader != null)
        {
            leader.withdraw();
        }
        // Each takes 100 ms, which ZooKeeper's client sleeps with a lock that all clients of a process share. Where
        // there are many, sessions without nodes are left to the server, which sees their connections end.
        final long last = System.nanoTime() + TimeUnit.SECONDS.toNanos(CLOSE_SECONDS);
        for (final Candidate candidate : candidates)
        {
            if (System.nanoTime() > last)
            {
                return;
            }
            candidate.client.close();
        }
    }

    private static void haltLate()
    {
        try
        {
            TimeUnit.SECONDS.sleep(END_SECONDS);
        }
        catch (InterruptedException nobodyDoes)
        {
            return;
        }
        complain("the candidates do not end within " + END_SECONDS + " s");
        Runtime.getRuntime().halt(1);
    }

    private static void complain(String reason)
    {
        System.err.println("curator_driver: " + reason);
    }

    private static int statusOf(CuratorDriver driver)
    {
        try
        {
            driver.run();
            return 0;
        }
        catch (Ended ended)
        {
            return 0;
        }
        catch (Trouble trouble)
        {
            complain(trouble.getMessage());
        }
        catch (Exception error)
        {
            complain(error.toString());
        }
        return 1;
    }

    public static void main(String[] arguments)
    {
        final CuratorDriver driver;
        try
        {
            driver = new CuratorDriver(Options.parse(arguments));
        }
        catch (Trouble trouble)
        {
            complain(trouble.getMessage());
            System.exit(1);
            return;
        }
        final CompletableFuture<Integer> status = new CompletableFuture<>();
        // Runs at a signal, too, where the status would be the signal's.
        Runtime.getRuntime().addShutdownHook(new Thread(() -> {
            driver.events.add(new Signalled());
            Runtime.getRuntime().halt(status.join());
        }));
        status.complete(statusOf(driver));
        System.exit(1);  // The hook knows better.
    }
}
